// Operations on byte strings: no character set, no locale; every byte value, NUL included, is ordinary.
// All of them may run on several threads at once. Their only failure is std::bad_alloc.
#pragma once

#include <string>
#include <vector>

namespace reqkit {

// Cuts `text` at every `delimiter` byte and replaces the contents of `pieces` with the pieces, in order, each
// without the spaces and tabs at its ends (those two bytes only: a line feed stays).
//
// With `keepEmpty`, n delimiters give n + 1 pieces, so that field n of a record is piece n. Without it, pieces
// that are empty after trimming are left out. There is no quoting: every delimiter byte cuts.
//
//   splitString("a| |b", '|', pieces, true)   pieces: "a", "", "b"
//   splitString("a| |b", '|', pieces, false)  pieces: "a", "b"
//
// `text` must not be one of `pieces`. When memory runs out, `pieces` holds the pieces found before.
void splitString(const std::string& text, char delimiter, std::vector<std::string>& pieces, bool keepEmpty);

// Returns `text` without the bytes at its ends that occur in `characters`; those in between stay.
std::string trimString(const std::string& text, const std::string& characters);

// Returns `source` with every `needle` replaced, from left to right. Occurrences don't overlap, and the search goes
// on after each replacement: what a replacement contains, or forms with its surroundings, is not replaced again.
//
//   replaceAll("aaa", "aa", "b")  "ba"
//   replaceAll("aabb", "ab", "")  "ab"
//
// `needle` must not be empty: an empty one is found for ever, and the call does not return.
std::string replaceAll(const std::string& source, const std::string& needle, const std::string& replacement);

}  // namespace reqkit
