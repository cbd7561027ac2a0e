// Reading text files a person writes, line by line, for every tool that reads one (the
// configuration-text loader, zfxd's fabric description): one line reader, one set of value
// readers, one "NAME:LINE: what is wrong" message.
//
// A line is normalised before it is read: a CR before the line end and trailing blanks go; its
// indentation (blanks and tabs, any number) is noted and taken off; its words are what runs of
// blanks and tabs separate. A byte-order mark before the first line is skipped.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "fabric.hpp"

namespace zfxtool {

using Words = std::vector<std::string>;

// What is wrong with the line at hand; each_line turns it into "NAME:LINE: what".
struct LineError {
    std::string what;
};

// A line as the readers see it; body is empty for a blank line.
struct TextLine {
    bool indented = false;
    std::string_view body;
};

TextLine normalise(std::string_view raw);
Words words(std::string_view body);

// Calls each(line) for every line of text in order. A LineError thrown by each ends the reading:
// false, with error "NAME:LINE: what". true when every line was taken.
bool each_line(const std::string &text, const std::string &name, const std::function<void(const TextLine &)> &each,
               std::string &error);

// The whole file at path ("-": standard input) into text; false with error "PATH: cannot read the
// file" when it cannot be read.
bool read_text(const std::string &path, std::string &text, std::string &error);

// Value readers: each throws LineError naming what it read (what: "VSAN", "domain", ...).
// A decimal number of at most 10 digits, at most max.
uint64_t number(const std::string &text, uint64_t max, const char *what);
// A number in decimal, or in hexadecimal after "0x", from min to max.
uint64_t any_number(const std::string &text, uint64_t min, uint64_t max, const char *what);
uint32_t vsan_number(const std::string &text);  // 0 to 4095
Wwn wwn_word(const std::string &text);          // parse_wwn's form
// VSAN range text: runs "a" or "a-b" joined by ",".
VsanSet vsan_ranges(const std::string &text);
// An FCID: "0x" and six hexadecimal digits (domain, area, port), as 0x00DDAAPP.
uint32_t fcid_number(const std::string &text);

}  // namespace zfxtool
