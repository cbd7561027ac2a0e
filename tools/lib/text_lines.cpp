// The line reader and value readers of text_lines.hpp.
#include "text_lines.hpp"

#include <algorithm>
#include <cctype>
#include <fstream>
#include <iostream>
#include <sstream>

namespace zfxtool {
namespace {

constexpr std::string_view kByteOrderMark = "\xEF\xBB\xBF";  // what some editors put before UTF-8 text

bool hex_digit(char c) { return std::isxdigit(static_cast<unsigned char>(c)) != 0; }
bool hex_prefix(const std::string &text) { return text.size() >= 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X'); }

}  // namespace

TextLine normalise(std::string_view raw) {
    if (raw.ends_with('\r')) raw.remove_suffix(1);
    while (raw.ends_with(' ')) raw.remove_suffix(1);
    const size_t indent = raw.find_first_not_of(" \t");
    if (indent == std::string_view::npos) return {};
    return {indent > 0, raw.substr(indent)};
}

Words words(std::string_view body) {
    Words out;
    for (size_t at = body.find_first_not_of(" \t"); at != std::string_view::npos; at = body.find_first_not_of(" \t", at)) {
        const size_t end = std::min(body.find_first_of(" \t", at), body.size());
        out.emplace_back(body.substr(at, end - at));
        at = end;
    }
    return out;
}

bool each_line(const std::string &text, const std::string &name, const std::function<void(const TextLine &)> &each,
               std::string &error) {
    std::string_view rest(text);
    if (rest.starts_with(kByteOrderMark)) rest.remove_prefix(kByteOrderMark.size());
    size_t line_number = 0;
    try {
        while (!rest.empty()) {
            const size_t end = std::min(rest.find('\n'), rest.size());
            const TextLine line = normalise(rest.substr(0, end));
            rest.remove_prefix(std::min(end + 1, rest.size()));
            ++line_number;
            each(line);
        }
    } catch (const LineError &bad) {
        error = name + ":" + std::to_string(line_number) + ": " + bad.what;
        return false;
    }
    return true;
}

bool read_text(const std::string &path, std::string &text, std::string &error) {
    std::ostringstream out;
    if (path == "-") {
        out << std::cin.rdbuf();
    } else {
        std::ifstream file(path, std::ios::binary);
        if (!file) {
            error = path + ": cannot read the file";
            return false;
        }
        out << file.rdbuf();
    }
    text = out.str();
    return true;
}

uint64_t number(const std::string &text, uint64_t max, const char *what) {
    if (text.empty() || text.size() > 10 || !std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; }))
        throw LineError{std::string("malformed ") + what + " '" + text + "'"};
    const uint64_t v = std::stoull(text);
    if (v > max) throw LineError{std::string(what) + " " + text + " is out of range (at most " + std::to_string(max) + ")"};
    return v;
}

uint64_t any_number(const std::string &text, uint64_t min, uint64_t max, const char *what) {
    uint64_t v;
    if (hex_prefix(text)) {
        if (text.size() < 3 || text.size() > 10 || !std::all_of(text.begin() + 2, text.end(), hex_digit))
            throw LineError{std::string("malformed ") + what + " '" + text + "'"};
        v = std::stoull(text.substr(2), nullptr, 16);
    } else {
        v = number(text, UINT32_MAX, what);
    }
    if (v < min || v > max)
        throw LineError{std::string(what) + " " + text + " is out of range (" + std::to_string(min) + " to " + std::to_string(max) + ")"};
    return v;
}

uint32_t vsan_number(const std::string &text) { return uint32_t(number(text, VSAN_BITSET_NUMBITS - 1, "VSAN")); }

Wwn wwn_word(const std::string &text) {
    Wwn w;
    if (!parse_wwn(text, w)) throw LineError{"malformed WWN '" + text + "'"};
    return w;
}

VsanSet vsan_ranges(const std::string &text) {
    VsanSet set;
    std::stringstream runs(text);
    std::string run;
    bool any = false;
    while (std::getline(runs, run, ',')) {
        const size_t dash = run.find('-');
        const uint32_t first = vsan_number(run.substr(0, dash));
        const uint32_t last = dash == std::string::npos ? first : vsan_number(run.substr(dash + 1));
        if (last < first) throw LineError{"VSAN range '" + run + "' runs backwards"};
        set.add(int32_t(first), int32_t(last));
        any = true;
    }
    if (!any || text.back() == ',') throw LineError{"malformed VSAN ranges '" + text + "'"};
    return set;
}

uint32_t fcid_number(const std::string &text) {
    if (text.size() != 8 || !hex_prefix(text) || !std::all_of(text.begin() + 2, text.end(), hex_digit))
        throw LineError{"malformed FCID '" + text + "' (0x and six hexadecimal digits)"};
    return uint32_t(std::stoul(text.substr(2), nullptr, 16));
}

}  // namespace zfxtool
