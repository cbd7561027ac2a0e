// Configuration text as a person or another tool has it: the zfx-gen text of a fabric rewritten
// into the forms the loader reads as the same commands. The tools' round-trip tests and the
// loader's fuzz harness both hold load(messy) to load(canonical).
#pragma once

#include <cctype>
#include <cstdint>
#include <string>
#include <vector>

namespace zfxtest {

struct MessyText {
    std::string text;
    size_t foreign_lines = 0;  // lines of other features put in (what --skip-foreign counts)
};

// Rewrites canonical (zfx-gen output) with the choices a seed makes: "!" comments and blank or
// blank-and-tab lines anywhere, CRLF line ends on some lines, trailing blanks, every block line
// indented by another mix of blanks and tabs, one to three blanks between words, upper-case
// hexadecimal in WWNs, LUNs and FCIDs, and blocks of other features' lines between the zfx
// commands (some starting with the same words as one), and sometimes no line end after the last
// line. Names are left as they are.
inline MessyText messy_text(const std::string &canonical, uint64_t seed) {
    uint64_t state = seed * 0x9E3779B97F4A7C15ull + 1;
    const auto below = [&state](uint32_t n) {
        state = state * 6364136223846793005ull + 1442695040888963407ull;
        return uint32_t(state >> 33) % n;
    };
    static const std::vector<std::vector<std::string>> foreign = {
        {"hostname edge-7"}, {"interface port 1/4", "  description to the array", "  no shutdown"},
        {"feature telemetry"}, {"no feature telemetry"}, {"logging level routing 3"},
        {"group name storage", "\tmember port 1/4", "\t\"quoted\"\tand\ttabbed"}, {"ntp server 192.0.2.10"},
        {"zfxd-banner welcome", "    member pwwn 20:00:00:aa:10:00:00:01 vsan 10"}};
    static const char *const indents[] = {" ", "  ", "    ", "\t", "\t\t", " \t", "\t  "};
    MessyText out;
    const auto end_line = [&] {
        out.text.append(below(4), ' ');
        out.text += below(3) == 0 ? "\r\n" : "\n";
    };
    const auto put_line = [&](const std::string &line) {
        out.text += line;
        end_line();
    };
    const auto extras = [&](bool foreign_allowed) {
        if (below(6) == 0) put_line(below(2) == 0 ? "!" : "! saved by an operator");
        if (below(8) == 0) put_line(below(2) == 0 ? "" : " \t");
        if (foreign_allowed && below(4) == 0) {
            const std::vector<std::string> &block = foreign[below(uint32_t(foreign.size()))];
            for (const std::string &line : block) put_line(line);
            out.foreign_lines += block.size();
        }
    };
    size_t at = 0;
    if (below(4) == 0) out.text += "\xEF\xBB\xBF";
    while (at < canonical.size()) {
        const size_t end = std::min(canonical.find('\n', at), canonical.size());
        const std::string line = canonical.substr(at, end - at);
        at = end + 1;
        std::vector<std::string> w;
        for (size_t i = line.find_first_not_of(' '); i != std::string::npos; i = line.find_first_not_of(' ', i)) {
            const size_t stop = std::min(line.find(' ', i), line.size());
            w.push_back(line.substr(i, stop - i));
            i = stop;
        }
        const bool indented = line.starts_with(' ');
        extras(!indented);  // another feature's block before an indented line would take it over
        if (w.empty()) continue;
        // The hexadecimal words, by their place in the lines that hold them (a name is never one).
        const size_t t = w[0] == "no" ? 1 : 0;  // a removal's words follow its "no"
        const auto hex_at = [&](size_t i) {
            return indented && ((w[0] == "member" && w.size() > 2 && w[1] == "pwwn" && i == 2) ||
                                (w[0] == "member" && w.size() > 4 && w[3] == "lun" && i == 4) ||
                                (w[0] == "switch-wwn" && i == 1) || (w[0] == "pwwn" && (i == 1 || i == 3)) ||
                                (w.size() > t + 3 && w[t] == "autonomous-fabric-id" && w[t + 2] == "switch-wwn" && i == t + 3));
        };
        if (indented) out.text += indents[below(sizeof indents / sizeof *indents)];
        for (size_t i = 0; i < w.size(); ++i) {
            std::string word = w[i];
            if (hex_at(i) && below(2) == 0)
                for (size_t c = word.starts_with("0x") && below(2) == 0 ? 2 : 0; c < word.size(); ++c)
                    word[c] = char(std::toupper(static_cast<unsigned char>(word[c])));
            if (i > 0) out.text.append(1 + below(3), ' ');
            out.text += word;
        }
        end_line();
    }
    extras(true);
    if (below(4) == 0) out.text.erase(out.text.find_last_not_of("\r\n") + 1);  // no line end after the last line
    return out;
}

}  // namespace zfxtest
