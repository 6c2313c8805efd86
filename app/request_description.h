// The request description of the command line: "URL|PARAM|CMD|HEADER|AGENT|TIMEOUT|OUTFILE".
#pragma once

#include <string>

#include "net/web_request.h"

namespace webreq {

struct RequestDescription {
  reqkit::RequestParameters parameters;  // empty: there is no URL, so no request is to be made
  std::string outputFile;                // empty: the body goes to standard output
};

// Takes a description apart. Fields that are missing or blank read as empty, spaces and tabs around a field are not
// part of it, fields after OUTFILE are ignored. A field can't hold a "|": there is no quoting.
//
// A CMD that begins with P or p does not select POST: it replaces PARAM by the text "p", and the request stays a GET.
// An empty TIMEOUT means 2000 milliseconds. Without a URL nothing else counts, not even OUTFILE.
// Throws nothing but std::bad_alloc.
RequestDescription parseRequestDescription(const std::string& text);

}  // namespace webreq
