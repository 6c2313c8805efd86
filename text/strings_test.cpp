#include "text/strings.h"

#include <gtest/gtest.h>
#include <sys/time.h>

#include <algorithm>
#include <csignal>
#include <functional>
#include <new>

#include "testing/failing_allocation.h"

namespace reqkit {

namespace {

using namespace std::string_literals;
using test_support::allocationFailed;
using test_support::FailingAllocation;

using Pieces = std::vector<std::string>;

constexpr const char* kBlanks = " \t";
constexpr int kByteValues = 256;

// The bytes from `first` up to, not including, `end`, in ascending order.
std::string byteRange(int first, int end) {
  std::string bytes;
  for (int byte = first; byte < end; ++byte) bytes += static_cast<char>(byte);
  return bytes;
}

std::string allBytes() { return byteRange(0, kByteValues); }

Pieces split(const std::string& text, char delimiter, bool keepEmpty) {
  Pieces pieces;
  splitString(text, delimiter, pieces, keepEmpty);
  return pieces;
}

// Calls `use` with every string of up to `length` bytes of `alphabet`.
void forEachText(const std::string& alphabet, std::size_t length, const std::function<void(const std::string&)>& use,
                 const std::string& beginning = {}) {
  use(beginning);
  if (length == 0) return;
  for (const char byte : alphabet) forEachText(alphabet, length - 1, use, beginning + byte);
}

std::string plainTrim(std::string text, const std::string& characters) {
  const auto isTrimmed = [&](char byte) { return characters.find(byte) != std::string::npos; };
  while (!text.empty() && isTrimmed(text.front())) text.erase(0, 1);
  while (!text.empty() && isTrimmed(text.back())) text.pop_back();
  return text;
}

Pieces plainSplit(const std::string& text, char delimiter, bool keepEmpty) {
  Pieces pieces;
  std::string piece;
  for (const char byte : text + delimiter) {
    if (byte != delimiter) {
      piece += byte;
      continue;
    }
    piece = plainTrim(piece, kBlanks);
    if (keepEmpty || !piece.empty()) pieces.push_back(piece);
    piece.clear();
  }
  return pieces;
}

std::string plainReplace(std::string text, const std::string& needle, const std::string& replacement) {
  for (std::size_t at = 0; at + needle.size() <= text.size();) {
    const bool isNeedle = text.compare(at, needle.size(), needle) == 0;
    if (isNeedle) text.replace(at, needle.size(), replacement);
    at += isNeedle ? replacement.size() : 1;
  }
  return text;
}

// Has each allocation of `call` fail in turn and calls `check` after each failure.
void forEachFailingAllocation(const std::function<void()>& call, const std::function<void()>& check) {
  for (std::size_t index = 1;; ++index) {
    SCOPED_TRACE("allocation " + std::to_string(index));
    bool threw = false;
    try {
      const FailingAllocation failing = FailingAllocation::once(index);
      call();
    } catch (const std::bad_alloc&) {
      threw = true;
    }
    EXPECT_EQ(threw, allocationFailed());
    if (!allocationFailed()) break;
    check();
  }
}

TEST(SplitString, CutsAtTheDelimiterAndTrims) {
  const struct {
    const char* rule;
    std::string text;
    char delimiter;
    Pieces all;
    Pieces nonEmpty;
  } rows[] = {
      {"an empty text is one empty piece", "", '|', {""}, {}},
      {"a text without delimiters is one piece", "abc", '|', {"abc"}, {"abc"}},
      {"spaces and tabs at the ends are trimmed", "  abc\t", '|', {"abc"}, {"abc"}},
      {"a blank text is one empty piece", " \t ", '|', {""}, {}},
      {"a delimiter separates two pieces", "a|b", '|', {"a", "b"}, {"a", "b"}},
      {"nothing before the first delimiter is an empty piece", "|a", '|', {"", "a"}, {"a"}},
      {"nothing behind the last delimiter is an empty piece", "a|", '|', {"a", ""}, {"a"}},
      {"nothing between two delimiters is an empty piece", "a||b", '|', {"a", "", "b"}, {"a", "b"}},
      {"blanks between two delimiters are an empty piece", "a| |b", '|', {"a", "", "b"}, {"a", "b"}},
      {"a delimiter alone separates two empty pieces", "|", '|', {"", ""}, {}},
      {"blanks inside a piece stay", " a | b  c ", '|', {"a", "b  c"}, {"a", "b  c"}},
      {"eleven more delimiters give eleven empty pieces",
       "a|b|c|||||||||||",
       '|',
       {"a", "b", "c", "", "", "", "", "", "", "", "", "", "", ""},
       {"a", "b", "c"}},
      {"a line feed is not trimmed", "a\r\nb", '\r', {"a", "\nb"}, {"a", "\nb"}},
      {"a piece behind the last carriage return is empty", "X: 1\r", '\r', {"X: 1", ""}, {"X: 1"}},
      {"a blank can be the delimiter", " a b", ' ', {"", "a", "b"}, {"a", "b"}},
      {"there is no quoting", "\"a|b\"", '|', {"\"a", "b\""}, {"\"a", "b\""}},
      {"there is no escape", "a\\|b", '|', {"a\\", "b"}, {"a\\", "b"}},
      {"a NUL byte is ordinary", "a\0b|\0"s, '|', {"a\0b"s, "\0"s}, {"a\0b"s, "\0"s}},
      {"a NUL byte can be the delimiter", "a\0\0b"s, '\0', {"a", "", "b"}, {"a", "b"}},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.rule);
    EXPECT_EQ(split(row.text, row.delimiter, true), row.all);
    EXPECT_EQ(split(row.text, row.delimiter, false), row.nonEmpty);
  }
}

TEST(SplitString, EveryByteValueCanBeTheDelimiter) {
  const std::string text = allBytes();
  for (int byte = 0; byte < kByteValues; ++byte) {
    const Pieces halves = {trimString(byteRange(0, byte), kBlanks),
                           trimString(byteRange(byte + 1, kByteValues), kBlanks)};
    EXPECT_EQ(split(text, static_cast<char>(byte), true), halves) << "delimiter " << byte;
  }
}

TEST(SplitString, TrimsSpacesAndTabsOnly) {
  for (int byte = 0; byte < kByteValues; ++byte) {
    const std::string end(1, static_cast<char>(byte));
    const std::string piece = end + "(" + end + ")" + end;
    const std::string trimmed = byte == ' ' || byte == '\t' ? "(" + end + ")" : piece;
    EXPECT_EQ(split(piece, '\r', true), byte == '\r' ? (Pieces{"", "(", ")", ""}) : Pieces{trimmed}) << "byte " << byte;
  }
}

TEST(SplitString, EqualsCuttingByteByByte) {
  forEachText("a |\t\n\0"s, 6, [](const std::string& text) {
    for (const char delimiter : {'|', ' ', '\0'}) {
      EXPECT_EQ(split(text, delimiter, true), plainSplit(text, delimiter, true)) << text;
      EXPECT_EQ(split(text, delimiter, false), plainSplit(text, delimiter, false)) << text;
    }
  });
}

TEST(SplitString, ReplacesFormerPieces) {
  Pieces pieces = {"former", "pieces", "and", "more"};
  splitString("a|b", '|', pieces, true);
  EXPECT_EQ(pieces, (Pieces{"a", "b"}));
  splitString("", '|', pieces, false);
  EXPECT_EQ(pieces, Pieces{});
}

TEST(SplitString, CutsALongText) {
  EXPECT_EQ(split(std::string(120000, '|'), '|', true), Pieces(120001));
  EXPECT_EQ(split(std::string(120000, 'a'), '|', true), Pieces{std::string(120000, 'a')});
}

TEST(SplitString, KeepsThePiecesFoundBeforeMemoryRanOut) {
  const std::string text = "a||b|" + std::string(2000, 'c') + "|d";
  Pieces pieces = {"former"};
  const FailingAllocation failing = FailingAllocation::above(1000);
  EXPECT_THROW(splitString(text, '|', pieces, true), std::bad_alloc);
  EXPECT_EQ(pieces, (Pieces{"a", "", "b"}));
}

TEST(SplitString, HoldsTheFirstPiecesWhicheverAllocationFails) {
  const std::string text = std::string(100, 'a') + "|b|" + std::string(100, 'c') + "|" + std::string(100, 'd');
  const Pieces complete = split(text, '|', true);
  Pieces pieces;
  const auto call = [&] {
    pieces = Pieces();
    splitString(text, '|', pieces, true);
  };
  forEachFailingAllocation(call, [&] {
    ASSERT_LT(pieces.size(), complete.size());
    EXPECT_TRUE(std::equal(pieces.begin(), pieces.end(), complete.begin()));
  });
  EXPECT_EQ(pieces, complete);
}

TEST(TrimString, TakesTheSetsBytesOffTheEnds) {
  const struct {
    const char* rule;
    std::string text;
    std::string characters;
    std::string trimmed;
  } rows[] = {
      {"an empty text stays empty", "", kBlanks, ""},
      {"a text of the set's bytes becomes empty", " \t ", kBlanks, ""},
      {"bytes in between stay", "\ta b ", kBlanks, "a b"},
      {"a carriage return is not in the set", "\ra\r", kBlanks, "\ra\r"},
      {"the start alone is trimmed", " \ta", kBlanks, "a"},
      {"the end alone is trimmed", "a\t ", kBlanks, "a"},
      {"an empty set trims nothing", " a ", "", " a "},
      {"an empty set trims nothing from an empty text", "", "", ""},
      {"order in the set does not matter", "\ta b ", "\t ", "a b"},
      {"repetition in the set does not matter", "\ta b ", "  \t\t ", "a b"},
      {"matching is case-sensitive", "aAa", "a", "A"},
      {"a NUL byte can be in the set", "\0 a\0"s, "\0 "s, "a"},
      {"a NUL byte outside the set stays", " \0 "s, kBlanks, "\0"s},
      {"bytes of the set behind a NUL byte count", "xax", "\0x"s, "a"},
  };
  for (const auto& row : rows) EXPECT_EQ(trimString(row.text, row.characters), row.trimmed) << row.rule;
}

TEST(TrimString, EveryByteValueCanBeInTheSet) {
  for (int byte = 0; byte < kByteValues; ++byte) {
    const std::string ends(2, static_cast<char>(byte));
    const std::string middle = {static_cast<char>(byte ^ 1), static_cast<char>(byte), static_cast<char>(byte ^ 1)};
    EXPECT_EQ(trimString(ends + middle + ends, ends), middle) << "byte " << byte;
  }
}

TEST(TrimString, EveryByteValueCanBeOutsideTheSet) {
  for (int byte = 0; byte < kByteValues; ++byte) {
    const std::string others = byteRange(0, byte) + byteRange(byte + 1, kByteValues);
    const std::string middle = byteRange(byte, kByteValues) + byteRange(0, byte + 1);
    EXPECT_EQ(trimString(allBytes() + allBytes(), others), middle) << "byte " << byte;
  }
}

TEST(TrimString, EqualsTrimmingByteByByte) {
  forEachText("a \t\n\0"s, 6, [](const std::string& text) {
    for (const std::string& characters : {""s, "a"s, " \t"s, "\0"s, "\n\0a"s}) {
      EXPECT_EQ(trimString(text, characters), plainTrim(text, characters)) << text;
    }
  });
}

TEST(TrimString, LeavesItsArgumentsWhenMemoryRunsOut) {
  const std::string text = " " + std::string(100, 'a') + " ";
  const std::string characters = kBlanks;
  std::string result = "former";
  forEachFailingAllocation([&] { result = trimString(text, characters); },
                           [&] {
                             EXPECT_EQ(text, " " + std::string(100, 'a') + " ");
                             EXPECT_EQ(characters, kBlanks);
                             EXPECT_EQ(result, "former");
                           });
  EXPECT_EQ(result, std::string(100, 'a'));
}

TEST(ReplaceAll, ReplacesFromLeftToRight) {
  const struct {
    const char* rule;
    std::string source;
    std::string needle;
    std::string replacement;
    std::string result;
  } rows[] = {
      {"an occurrence is replaced", "Accept:\\stext/plain", "\\s", " ", "Accept: text/plain"},
      {"adjoining occurrences are replaced", "\\s\\s", "\\s", " ", "  "},
      {"a backslash in front of the needle escapes nothing", "a\\\\sb", "\\s", " ", "a\\ b"},
      {"matching is case-sensitive", "\\S", "\\s", " ", "\\S"},
      {"a part of the needle is not replaced", "\\", "\\s", " ", "\\"},
      {"an empty source stays empty", "", "\\s", " ", ""},
      {"a source without the needle stays as it is", "abc", "d", "e", "abc"},
      {"the whole source can be the needle", "abc", "abc", "d", "d"},
      {"occurrences at both ends are replaced", "abcab", "ab", "d", "dcd"},
      {"occurrences do not overlap", "aaaa", "aa", "b", "bb"},
      {"of two overlapping occurrences the left one is replaced", "aaa", "aa", "b", "ba"},
      {"a replacement that contains the needle is not searched", "aa", "a", "aa", "aaaa"},
      {"what a removal brings together is not replaced", "aabb", "ab", "", "ab"},
      {"what a replacement forms with the bytes behind it is not replaced", "abb", "ab", "a", "ab"},
      {"what a replacement forms with the bytes in front of it is not replaced", "aab", "ab", "b", "ab"},
      {"an empty replacement removes", "a-b-c", "-", "", "abc"},
      {"a longer replacement makes the result grow", "a-b", "-", "<->", "a<->b"},
      {"a NUL byte is ordinary in the source", "a\0b"s, "b", "c", "a\0c"s},
      {"a NUL byte is ordinary in the needle", "a\0b\0c"s, "\0c"s, "d", "a\0bd"s},
      {"a NUL byte is ordinary in the replacement", "ab", "b", "\0c"s, "a\0c"s},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(replaceAll(row.source, row.needle, row.replacement), row.result) << row.rule;
  }
}

TEST(ReplaceAll, EveryByteValueCanBeReplaced) {
  const std::string source = allBytes();
  for (int byte = 0; byte < kByteValues; ++byte) {
    const std::string result = byteRange(0, byte) + "new" + byteRange(byte + 1, kByteValues);
    EXPECT_EQ(replaceAll(source, std::string(1, static_cast<char>(byte)), "new"), result) << "byte " << byte;
  }
}

TEST(ReplaceAll, EqualsReplacingByteByByte) {
  const auto compare = [](const std::string& needle, const std::string& replacement) {
    forEachText("ab", 6, [&](const std::string& source) {
      EXPECT_EQ(replaceAll(source, needle, replacement), plainReplace(source, needle, replacement))
          << source << ", " << needle << " by " << replacement;
    });
  };
  forEachText("ab", 3, [&](const std::string& needle) {
    if (needle.empty()) return;
    forEachText("ab", 2, [&](const std::string& replacement) { compare(needle, replacement); });
  });
}

TEST(ReplaceAll, ReplacesThroughALongSource) {
  std::string source;
  for (int i = 0; i < 60000; ++i) source += "\\s";
  EXPECT_EQ(replaceAll(source, "\\s", " "), std::string(60000, ' '));
  EXPECT_EQ(replaceAll(std::string(60000, ' '), " ", "\\s"), source);
}

TEST(ReplaceAll, LeavesItsArgumentsWhenMemoryRunsOut) {
  const std::string source = std::string(100, 'a') + "b" + std::string(100, 'a');
  const std::string needle = "b";
  const std::string replacement(100, 'c');
  std::string result = "former";
  forEachFailingAllocation([&] { result = replaceAll(source, needle, replacement); },
                           [&] {
                             EXPECT_EQ(source, std::string(100, 'a') + "b" + std::string(100, 'a'));
                             EXPECT_EQ(needle, "b");
                             EXPECT_EQ(replacement, std::string(100, 'c'));
                             EXPECT_EQ(result, "former");
                           });
  EXPECT_EQ(result, std::string(100, 'a') + std::string(100, 'c') + std::string(100, 'a'));
}

TEST(ReplaceAll, AnEmptyNeedleIsReplacedUntilMemoryRunsOut) {
  const FailingAllocation failing = FailingAllocation::above(1U << 20U);
  EXPECT_THROW(replaceAll("abc", "", "x"), std::bad_alloc);
}

void endProcessAfterMillisecondsOfWork(int milliseconds) {
  const itimerval timer = {{0, 0}, {0, milliseconds * 1000L}};
  setitimer(ITIMER_VIRTUAL, &timer, nullptr);
}

TEST(ReplaceAllDeathTest, AnEmptyNeedleIsReplacedByNothingForEver) {
  const auto replaceNothingByNothing = [] {
    endProcessAfterMillisecondsOfWork(100);
    replaceAll("abc", "", "");
  };
  EXPECT_EXIT(replaceNothingByNothing(), testing::KilledBySignal(SIGVTALRM), "");
}

}  // namespace

}  // namespace reqkit
