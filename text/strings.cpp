#include "text/strings.h"

#include <utility>

namespace reqkit {

namespace {

const char* const kBlanks = " \t";

void appendPiece(const std::string& piece, std::vector<std::string>& pieces, bool keepEmpty) {
  std::string trimmed = trimString(piece, kBlanks);
  if (keepEmpty || !trimmed.empty()) pieces.push_back(std::move(trimmed));
}

}  // namespace

void splitString(const std::string& text, char delimiter, std::vector<std::string>& pieces, bool keepEmpty) {
  pieces.clear();
  std::size_t start = 0;
  for (std::size_t end = text.find(delimiter); end != std::string::npos; end = text.find(delimiter, start)) {
    appendPiece(text.substr(start, end - start), pieces, keepEmpty);
    start = end + 1;
  }
  appendPiece(text.substr(start), pieces, keepEmpty);
}

std::string trimString(const std::string& text, const std::string& characters) {
  const std::size_t first = text.find_first_not_of(characters);
  if (first == std::string::npos) return {};
  const std::size_t last = text.find_last_not_of(characters);
  return text.substr(first, last - first + 1);
}

std::string replaceAll(const std::string& source, const std::string& needle, const std::string& replacement) {
  // Building the result beside the source keeps the cost linear; replacing in place would move the rest each time.
  std::string result;
  std::size_t start = 0;
  for (std::size_t found = source.find(needle); found != std::string::npos; found = source.find(needle, start)) {
    result.append(source, start, found - start).append(replacement);
    start = found + needle.size();
  }
  return result.append(source, start);
}

}  // namespace reqkit
