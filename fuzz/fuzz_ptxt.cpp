// The configuration-text builder driven by arbitrary call sequences: element declarations
// (numbers colliding across groups), dependencies (undeclared ones, self-dependencies and
// cycles), pieces at any level, lines for other groups, renders along the way, and the end of
// each generation by a respond into a sink or a release. Two generations run side by side and a
// stale handle is used among them.
//
// Every status and every rendered text is compared with a small model kept the other way round:
// a piece is remembered character by character with its level, and an element's lines are cut
// and indented only when the text is rendered; the order is found by asking, again and again,
// which element is ready. So the sink receives exactly the bytes the calls declared, each in its
// place, and nothing else.
#include <cstdlib>
#include <string>
#include <utility>
#include <vector>

#include "fuzz_input.hpp"
#include "platform/ptxt.h"

using zfxfuzz::finding;

namespace {

struct ModelElement {
    uint32_t group, number;
    std::vector<std::pair<char, uint32_t>> chars;  // every character added, with its piece's level
};

struct Model {
    std::vector<ModelElement> elements;  // declaration order
    std::vector<std::vector<uint32_t>> deps;
    std::string group_lines;

    ModelElement *find(uint32_t number) {
        for (ModelElement &e : elements)
            if (e.number == number) return &e;
        return nullptr;
    }

    int32_t declare(uint32_t group, uint32_t number) {
        if (const ModelElement *e = find(number)) return e->group == group ? 0 : PTXT_ERR_EXISTS;
        elements.push_back({group, number, {}});
        return 0;
    }

    int32_t add(uint32_t number, const std::string &text, uint32_t level) {
        if (level > PTXT_LEVEL_MAX) return PTXT_ERR_INVALID;
        ModelElement *e = find(number);
        if (e == nullptr) return PTXT_ERR_NO_ELEMENT;
        for (char c : text) e->chars.emplace_back(c, level);
        return 0;
    }

    void group_line(const std::string &text) {
        if (text.empty()) return;
        group_lines += text;
        if (text.back() != '\n') group_lines += '\n';
    }

    // An element's lines, each indented by the level of its first character; an empty line
    // stays empty and a last line without its "\n" gets one.
    static std::string lines(const ModelElement &e) {
        std::string out;
        size_t i = 0;
        while (i < e.chars.size()) {
            size_t j = i;
            while (j < e.chars.size() && e.chars[j].first != '\n') ++j;
            if (j > i) out.append(2 * size_t(e.chars[i].second), ' ');
            for (size_t k = i; k < j; ++k) out += e.chars[k].first;
            out += '\n';
            i = j + 1;
        }
        return out;
    }

    // Whether element i waits for an element not yet rendered.
    bool waits(size_t i, const std::vector<bool> &done) const {
        for (const auto &d : deps) {
            if (d[0] != elements[i].number) continue;
            for (size_t o = 0; o < elements.size(); ++o)
                if (o != i && !done[o] && elements[o].group == d[1] && elements[o].number == d[2]) return true;
        }
        return false;
    }

    std::string render() const {
        std::string out;
        std::vector<bool> done(elements.size(), false);
        for (size_t left = elements.size(); left > 0; --left) {
            size_t pick = elements.size();
            for (size_t i = 0; i < elements.size() && pick == elements.size(); ++i)
                if (!done[i] && !waits(i, done)) pick = i;
            for (size_t i = 0; i < elements.size() && pick == elements.size(); ++i)
                if (!done[i]) pick = i;
            done[pick] = true;
            out += lines(elements[pick]);
        }
        return out + group_lines;
    }
};

struct Generation {
    uint32_t handle = 0;
    Model model;
};

// Element numbers mostly from a few (so that they collide), sometimes any 32-bit number.
uint32_t number(zfxfuzz::Input &in) {
    const uint8_t b = in.take<uint8_t>();
    return b < 0xF0 ? b % 12 : in.take<uint32_t>();
}

uint32_t group(zfxfuzz::Input &in) {
    const uint8_t b = in.take<uint8_t>();
    return b % 4 == 3 ? 180 : b % 4;
}

// A piece of text: up to 63 bytes, cut at the first NUL as a C string is.
std::string text(zfxfuzz::Input &in) {
    const std::vector<uint8_t> raw = in.bytes(in.take<uint8_t>() % 64);
    std::string s(raw.begin(), raw.end());
    return s.substr(0, s.find('\0'));
}

void expect(int32_t got, int32_t want, const char *what) {
    if (got != want) finding(what);
}

void check_render(const Generation &g) {
    char *t = nullptr;
    uint32_t len = 0;
    expect(ptxt_render(g.handle, &t, &len), 0, "render refused");
    if (t == nullptr || t[len] != '\0' || g.model.render() != std::string(t, len))
        finding("rendered text differs from the calls");
    std::free(t);
}

struct Delivery {
    std::string text;
    int calls = 0;
    int32_t result = 0;
};

int32_t sink(void *arg, void *msg, const char *text, uint32_t len) {
    auto *d = static_cast<Delivery *>(arg);
    if (msg != &d->calls || text == nullptr || text[len] != '\0') finding("sink called with other arguments");
    d->text.assign(text, len);
    ++d->calls;
    return d->result;
}

// Ends the generation the way the input says: respond with a sink, without one, with no request,
// or release; in every case the handle is gone afterwards.
void finish(zfxfuzz::Input &in, const Generation &g) {
    const uint8_t how = in.take<uint8_t>() % 4;
    Delivery d;
    d.result = int32_t(in.take<uint8_t>()) - 128;
    ptxt_request req{"mem:cfg", "mem:dbg", how == 0 ? sink : nullptr, &d};
    switch (how) {
        case 0:
            expect(ptxt_respond(g.handle, &d.calls, &req), d.result, "respond did not return the sink's result");
            if (d.calls != 1 || d.text != g.model.render()) finding("sink did not receive the rendered text");
            break;
        case 1: expect(ptxt_respond(g.handle, &d.calls, &req), 0, "respond without a sink"); break;
        case 2: expect(ptxt_respond(g.handle, nullptr, nullptr), PTXT_ERR_INVALID, "respond without a request"); break;
        default: expect(ptxt_hdl_release(g.handle), 0, "release refused"); break;
    }
    expect(ptxt_hdl_release(g.handle), PTXT_ERR_HANDLE, "a generation outlived its end");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    zfxfuzz::Input in(data, size);
    Generation gens[2];
    uint32_t stale = 0;
    expect(ptxt_hdl_init(&stale), 0, "init refused");
    expect(ptxt_hdl_release(stale), 0, "release refused");
    for (Generation &g : gens) {
        expect(ptxt_hdl_init(&g.handle), 0, "init refused");
        if (g.handle == 0 || g.handle == stale) finding("a handle reused");
    }
    if (gens[0].handle == gens[1].handle) finding("two generations with one handle");

    for (int ops = 0; in.left() > 0 && ops < 512; ++ops) {
        const uint8_t op = in.take<uint8_t>();
        // Two of every eight calls go to the stale handle, which answers PTXT_ERR_HANDLE throughout.
        const bool to_stale = (op >> 5) % 4 == 3;
        Generation &g = gens[(op >> 5) & 1];
        const uint32_t h = to_stale ? stale : g.handle;
        Model scratch;
        Model &m = to_stale ? scratch : g.model;
        // Arguments are checked before the handle.
        auto status = [&](int32_t want) { return to_stale && want != PTXT_ERR_INVALID ? PTXT_ERR_HANDLE : want; };
        switch (op % 8) {
            case 0: {
                const uint32_t grp = group(in), n = number(in);
                expect(ptxt_elem_add(h, grp, n, in.take<uint8_t>()), status(m.declare(grp, n)), "declaration");
                break;
            }
            case 1: {
                const uint32_t e = number(in), grp = group(in), o = number(in);
                expect(ptxt_elem_dependency_add(h, e, grp, o), status(0), "dependency");
                m.deps.push_back({e, grp, o});
                break;
            }
            case 2: {
                const uint32_t n = number(in);
                const std::string t = text(in);
                expect(ptxt_elem_str_add(h, n, t.c_str()), status(m.add(n, t, 0)), "piece");
                break;
            }
            case 3: {
                const uint32_t n = number(in), level = in.take<uint8_t>() % 40;
                const std::string t = text(in);
                expect(ptxt_elem_str_add_indent(h, n, t.c_str(), level), status(m.add(n, t, level)), "indented piece");
                break;
            }
            case 4: {
                const uint32_t grp = group(in), a = in.take<uint8_t>(), b = in.take<uint8_t>();
                const std::string t = text(in);
                expect(ptxt_elem_group_config_str_add(h, grp, a, b, t.c_str()), status(0), "group line");
                m.group_line(t);
                break;
            }
            case 5:
                if (to_stale) {
                    char *t = reinterpret_cast<char *>(&m);
                    expect(ptxt_render(h, &t, nullptr), PTXT_ERR_HANDLE, "render of a stale handle");
                    if (t != nullptr) finding("a refused render left its text pointer set");
                } else {
                    check_render(g);
                }
                break;
            case 6: {
                // NULL arguments are refused and change nothing.
                const uint32_t n = number(in);
                expect(ptxt_elem_str_add(h, n, nullptr), PTXT_ERR_INVALID, "NULL piece");
                expect(ptxt_elem_str_add_indent(h, n, nullptr, 0), PTXT_ERR_INVALID, "NULL indented piece");
                expect(ptxt_elem_group_config_str_add(h, 1, 0, 0, nullptr), PTXT_ERR_INVALID, "NULL group line");
                expect(ptxt_render(h, nullptr, nullptr), PTXT_ERR_INVALID, "render without a text pointer");
                break;
            }
            default:
                expect(ptxt_elem_str_add_indent(h, number(in), "x", PTXT_LEVEL_MAX + 1 + in.take<uint8_t>()),
                       PTXT_ERR_INVALID, "a level above the most");
                break;
        }
    }
    for (Generation &g : gens) {
        check_render(g);
        finish(in, g);
    }
    return 0;
}
