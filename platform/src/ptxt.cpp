// The configuration-text service: generations of elements with dependencies, rendered in a
// deterministic topological order (see platform/ptxt.h for every rule).
#include "platform/ptxt.h"

#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <new>
#include <string>
#include <vector>

namespace {

// An element's text is kept in chunks of about kChunk bytes: a text of megabytes grows without
// being copied again, and its chunks come from (and go back to) the allocator's ordinary heap.
constexpr size_t kChunk = 64 * 1024;

struct Element {
    uint32_t group;
    uint32_t number;
    std::vector<std::string> chunks;
    size_t size = 0;
    bool open = false;  // the last line has no "\n" yet

    // Appends lead spaces (a line's indentation), then the n characters at p.
    void put(size_t lead, const char *p, size_t n) {
        const size_t total = lead + n;
        if (chunks.empty() || chunks.back().size() + total > kChunk) {
            chunks.emplace_back();
            chunks.back().reserve(total > kChunk ? total : kChunk);
        }
        std::string &c = chunks.back();
        if (lead != 0) c.append(lead, ' ');
        c.append(p, n);
        size += total;
    }
};

struct Dependency {
    uint32_t element;
    uint32_t group;
    uint32_t other;
};

struct Generation {
    std::vector<Element> elements;  // in declaration order: the tie-break of the rendering
    std::vector<Dependency> deps;
    std::string group_lines;
};

std::mutex g_lock;
std::map<uint32_t, std::unique_ptr<Generation>> g_gens;
uint32_t g_last_handle;
// The generation found last: text comes line by line, nearly always to the same generation.
uint32_t g_found_handle;
Generation *g_found;

Generation *find(uint32_t handle) {
    if (g_found != nullptr && g_found_handle == handle) return g_found;
    auto it = g_gens.find(handle);
    if (it == g_gens.end()) return nullptr;
    g_found_handle = handle;
    g_found = it->second.get();
    return g_found;
}

// Forgets the generation found last when it ends (call under g_lock).
void forget(uint32_t handle) {
    if (g_found_handle == handle) g_found = nullptr;
}

Element *element_of(Generation &g, uint32_t number) {
    for (Element &e : g.elements)
        if (e.number == number) return &e;
    return nullptr;
}

// Appends text to an element: each line is indented when it begins, a line left open continues
// with the next piece. A whole line goes in with one copy, its indentation and "\n" included;
// the text is read once (each line's end found as its terminator would be).
void append(Element &e, const char *text, uint32_t level) {
    const size_t indent = 2 * size_t(level);
    for (const char *p = text; *p != '\0';) {
        const char *const nl = strchrnul(p, '\n');
        const bool whole = *nl == '\n';
        const size_t n = size_t(nl - p) + (whole ? 1 : 0);
        e.put(!e.open && nl != p ? indent : 0, p, n);
        e.open = !whole && (e.open || nl != p);
        p += n;
    }
}

// The order in which the elements render: topological, the earliest declared ready element first,
// and the earliest declared of those left when a cycle leaves none ready.
std::vector<size_t> render_order(const Generation &g) {
    const size_t n = g.elements.size();
    auto index_of = [&](uint32_t group, uint32_t number) -> size_t {
        for (size_t i = 0; i < n; ++i)
            if (g.elements[i].number == number && g.elements[i].group == group) return i;
        return n;
    };
    std::vector<std::vector<size_t>> after(n);  // after[i]: elements that wait for i
    std::vector<size_t> waiting(n, 0);
    for (const Dependency &d : g.deps) {
        const Element *e = nullptr;
        for (const Element &x : g.elements)
            if (x.number == d.element) e = &x;
        const size_t ei = e == nullptr ? n : size_t(e - g.elements.data());
        const size_t o = index_of(d.group, d.other);
        if (ei == n || o == n || ei == o) continue;  // undeclared: ignored
        after[o].push_back(ei);
        ++waiting[ei];
    }
    std::vector<size_t> order;
    std::vector<bool> done(n, false);
    while (order.size() < n) {
        size_t pick = n;
        for (size_t i = 0; i < n && pick == n; ++i)
            if (!done[i] && waiting[i] == 0) pick = i;
        for (size_t i = 0; i < n && pick == n; ++i)
            if (!done[i]) pick = i;
        done[pick] = true;
        for (size_t e : after[pick])
            if (waiting[e] > 0) --waiting[e];
        order.push_back(pick);
    }
    return order;
}

// Renders the whole text into one block from malloc, sized exactly (texts run to megabytes: one
// copy of each line, no regrowth). With consume, each chunk is released once copied, so that a
// generation that ends with its rendering never holds its text twice. NULL when the block cannot
// be allocated (nothing is released then).
char *render(Generation &g, uint32_t &len, bool consume) {
    const std::vector<size_t> order = render_order(g);
    size_t total = g.group_lines.size();
    for (const Element &e : g.elements) total += e.size + (e.open ? 1 : 0);
    char *block = static_cast<char *>(std::malloc(total + 1));
    if (block == nullptr) return nullptr;
    char *p = block;
    for (size_t i : order) {
        Element &e = g.elements[i];
        for (std::string &c : e.chunks) {
            std::memcpy(p, c.data(), c.size());
            p += c.size();
            if (consume) std::string().swap(c);
        }
        if (e.open) *p++ = '\n';
    }
    std::memcpy(p, g.group_lines.data(), g.group_lines.size());
    p += g.group_lines.size();
    *p = '\0';
    len = uint32_t(total);
    return block;
}

template <typename F>
int32_t with_generation(uint32_t handle, F &&f) {
    std::lock_guard<std::mutex> lock(g_lock);
    Generation *g = find(handle);
    if (g == nullptr) return PTXT_ERR_HANDLE;
    try {
        return f(*g);
    } catch (const std::bad_alloc &) {
        return PTXT_ERR_NO_MEMORY;
    }
}

int32_t add_text(uint32_t handle, uint32_t element, const char *text, uint32_t level) {
    if (text == nullptr || level > PTXT_LEVEL_MAX) return PTXT_ERR_INVALID;
    return with_generation(handle, [&](Generation &g) {
        Element *e = element_of(g, element);
        if (e == nullptr) return PTXT_ERR_NO_ELEMENT;
        append(*e, text, level);
        return int32_t(0);
    });
}

// Takes the generation out of the table (ending it) and renders its text.
int32_t finish(uint32_t handle, char *&text, uint32_t &len) {
    std::unique_ptr<Generation> g;
    {
        std::lock_guard<std::mutex> lock(g_lock);
        auto it = g_gens.find(handle);
        if (it == g_gens.end()) return PTXT_ERR_HANDLE;
        g = std::move(it->second);
        g_gens.erase(it);
        forget(handle);
    }
    try {
        text = render(*g, len, true);
        return text != nullptr ? 0 : PTXT_ERR_NO_MEMORY;
    } catch (const std::bad_alloc &) {
        return PTXT_ERR_NO_MEMORY;
    }
}

}  // namespace

extern "C" {

int32_t ptxt_hdl_init(uint32_t *handle) {
    if (handle == nullptr) return PTXT_ERR_INVALID;
    *handle = 0;
    std::lock_guard<std::mutex> lock(g_lock);
    try {
        auto g = std::make_unique<Generation>();
        if (++g_last_handle == 0) ++g_last_handle;
        forget(g_last_handle);
        g_gens[g_last_handle] = std::move(g);
        *handle = g_last_handle;
        return 0;
    } catch (const std::bad_alloc &) {
        return PTXT_ERR_NO_MEMORY;
    }
}

int32_t ptxt_hdl_release(uint32_t handle) {
    std::lock_guard<std::mutex> lock(g_lock);
    forget(handle);
    return g_gens.erase(handle) != 0 ? 0 : PTXT_ERR_HANDLE;
}

const char *ptxt_startup_cfg_uri_prefix_get(void *req) {
    return req == nullptr ? nullptr : static_cast<ptxt_request *>(req)->startup_cfg_prefix;
}

const char *ptxt_startup_debug_cfg_uri_prefix_get(void *req) {
    return req == nullptr ? nullptr : static_cast<ptxt_request *>(req)->startup_debug_cfg_prefix;
}

int32_t ptxt_elem_add(uint32_t handle, uint32_t group, uint32_t element, uint32_t kind) {
    (void)kind;  // the kind matters to the switch's own service only
    return with_generation(handle, [&](Generation &g) {
        if (Element *e = element_of(g, element)) return e->group == group ? int32_t(0) : PTXT_ERR_EXISTS;
        g.elements.push_back(Element{group, element});
        return int32_t(0);
    });
}

int32_t ptxt_elem_dependency_add(uint32_t handle, uint32_t element, uint32_t group, uint32_t other) {
    return with_generation(handle, [&](Generation &g) {
        g.deps.push_back(Dependency{element, group, other});
        return int32_t(0);
    });
}

int32_t ptxt_elem_str_add(uint32_t handle, uint32_t element, const char *text) {
    return add_text(handle, element, text, 0);
}

int32_t ptxt_elem_str_add_indent(uint32_t handle, uint32_t element, const char *text, uint32_t level) {
    return add_text(handle, element, text, level);
}

int32_t ptxt_elem_group_config_str_add(uint32_t handle, uint32_t group, uint32_t a, uint32_t b,
                                       const char *text) {
    (void)group, (void)a, (void)b;
    if (text == nullptr) return PTXT_ERR_INVALID;
    return with_generation(handle, [&](Generation &g) {
        if (*text == '\0') return int32_t(0);
        g.group_lines += text;
        if (g.group_lines.back() != '\n') g.group_lines.push_back('\n');
        return int32_t(0);
    });
}

int32_t ptxt_render(uint32_t handle, char **text, uint32_t *len) {
    if (text == nullptr) return PTXT_ERR_INVALID;
    *text = nullptr;
    uint32_t n = 0;
    const int32_t st = with_generation(handle, [&](Generation &g) {
        *text = render(g, n, false);
        return *text != nullptr ? int32_t(0) : PTXT_ERR_NO_MEMORY;
    });
    if (st == 0 && len != nullptr) *len = n;
    return st;
}

int32_t ptxt_respond(uint32_t handle, void *msg, void *req) {
    char *text = nullptr;
    uint32_t len = 0;
    const int32_t st = finish(handle, text, len);
    if (st != 0) return st;
    const ptxt_request *r = static_cast<const ptxt_request *>(req);
    const int32_t result = r == nullptr ? PTXT_ERR_INVALID : r->sink == nullptr ? 0 : r->sink(r->sink_arg, msg, text, len);
    std::free(text);
    return result;
}

}  // extern "C"
