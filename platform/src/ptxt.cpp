// The configuration-text service: generations of elements with dependencies, rendered in a
// deterministic topological order (see platform/ptxt.h for every rule).
#include "platform/ptxt.h"

#include <sys/mman.h>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <new>
#include <string>
#include <vector>

namespace {

// Copies the line at p (up to its "\n" and with it, or up to end when it has none) to d, which
// has room for all of end - p; returns the line's length. The lines are short: where the text has
// sixteen bytes left, a block is copied whole and searched at once, rather than searching the
// line first and then copying it (the bytes a block copies past the line's end lie within the
// room, and the next line overwrites them).
size_t copy_line(char *d, const char *p, const char *end) {
    size_t n = 0;
#if defined(__SSE2__)
    const __m128i nl = _mm_set1_epi8('\n');
    // Two blocks at a time while there are two (one test for both), then one.
    for (; end - p - n >= 32; n += 32) {
        const __m128i a = _mm_loadu_si128(reinterpret_cast<const __m128i *>(p + n));
        const __m128i b = _mm_loadu_si128(reinterpret_cast<const __m128i *>(p + n + 16));
        _mm_storeu_si128(reinterpret_cast<__m128i *>(d + n), a);
        _mm_storeu_si128(reinterpret_cast<__m128i *>(d + n + 16), b);
        const unsigned found = unsigned(_mm_movemask_epi8(_mm_cmpeq_epi8(a, nl))) |
                               unsigned(_mm_movemask_epi8(_mm_cmpeq_epi8(b, nl))) << 16;
        if (found != 0) return n + size_t(__builtin_ctz(found)) + 1;
    }
    for (; end - p - n >= 16; n += 16) {
        const __m128i block = _mm_loadu_si128(reinterpret_cast<const __m128i *>(p + n));
        _mm_storeu_si128(reinterpret_cast<__m128i *>(d + n), block);
        if (const unsigned found = unsigned(_mm_movemask_epi8(_mm_cmpeq_epi8(block, nl))))
            return n + size_t(__builtin_ctz(found)) + 1;
    }
#endif
    const char *rest = p + n;
    const char *nl_at = static_cast<const char *>(std::memchr(rest, '\n', size_t(end - rest)));
    const size_t k = nl_at != nullptr ? size_t(nl_at - rest) + 1 : size_t(end - rest);
    std::memcpy(d + n, rest, k);
    return n + k;
}

// Writes indent spaces at d, in blocks of kSpaceBlock (an indentation is a few: the room of a
// whole block is reserved after it); returns where they end.
constexpr size_t kSpaceBlock = 16;
char *indent_line(char *d, size_t indent) {
    static constexpr char kSpaces[kSpaceBlock + 1] = "                ";
    for (size_t done = 0; done < indent; done += kSpaceBlock) std::memcpy(d + done, kSpaces, kSpaceBlock);
    return d + indent;
}

// A generation's text lies in one buffer, in the order it was added; each element holds the runs
// of it that are its own. A feature that adds its text in the order it renders (as features do)
// leaves the buffer holding the rendered text already, and ptxt_respond hands it over as it lies,
// without a copy: the text is held once, and written once.
//
// A buffer of megabytes is mapped on its own and grows by remapping, so that growing never copies
// it nor holds it twice (the allocator's heap would, for the sizes its threshold for mapping
// blocks on their own has grown past).
class Buffer {
public:
    Buffer() = default;
    Buffer(Buffer &&o) noexcept : data_(o.data_), len_(o.len_), cap_(o.cap_) { o.data_ = nullptr, o.len_ = o.cap_ = 0; }
    Buffer &operator=(Buffer &&o) noexcept {
        std::swap(data_, o.data_), std::swap(len_, o.len_), std::swap(cap_, o.cap_);
        return *this;
    }
    ~Buffer() { release(data_, cap_); }

    // Room for more characters after the last (throws std::bad_alloc, the buffer unchanged).
    void reserve(size_t more) {
        if (cap_ - len_ >= more) return;
        const size_t cap = std::max({2 * cap_, len_ + more, kFirst});
        void *p;
        if (cap < kMapped) {
            p = std::realloc(data_, cap);
        } else if (cap_ >= kMapped) {
            p = mremap(data_, cap_, cap, MREMAP_MAYMOVE);
        } else {
            p = mmap(nullptr, cap, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
            if (p != MAP_FAILED && data_ != nullptr) {
                std::memcpy(p, data_, len_);
                std::free(data_);
            }
        }
        if (p == nullptr || p == MAP_FAILED) throw std::bad_alloc();
        if (cap >= kMapped) madvise(p, cap, MADV_HUGEPAGE);  // pages of megabytes: few faults
        data_ = static_cast<char *>(p);
        cap_ = cap;
    }
    // Appends the n characters at p (room reserved).
    void put(const char *p, size_t n) {
        std::memcpy(data_ + len_, p, n);
        len_ += n;
    }
    // Where the next character goes, for a writer that has reserved its room; grow(n) then
    // counts the n characters it wrote there.
    char *end() const { return data_ + len_; }
    void grow(size_t n) { len_ += n; }
    void clear() { len_ = 0; }
    char *data() const { return data_; }
    size_t size() const { return len_; }

private:
    static constexpr size_t kFirst = 64 * 1024;
    static constexpr size_t kMapped = 1024 * 1024;
    static void release(char *data, size_t cap) {
        if (cap >= kMapped) munmap(data, cap);
        else std::free(data);
    }
    char *data_ = nullptr;
    size_t len_ = 0;
    size_t cap_ = 0;
};

// Where an element's text lies in its generation's buffer.
struct Run {
    size_t offset;
    size_t len;
};

struct Element {
    uint32_t group;
    uint32_t number;
    std::vector<Run> runs;
    size_t size = 0;
    bool open = false;  // the last line has no "\n" yet

    // Appends text whose lines (those with any text, unless they continue an open line) begin
    // with indent spaces. The buffer is grown once for the whole text, and a text at indent 0 goes
    // in with one copy.
    void append(Buffer &buf, const char *text, size_t indent) {
        const size_t len = std::strlen(text);
        if (len == 0) return;
        // At most (len + 1) / 2 lines have text (each but the last ends with its "\n"); the
        // terminator a handed-over text ends with; and the block of spaces an indentation is
        // written with.
        buf.reserve(len + indent * ((len + 1) / 2) + 1 + kSpaceBlock);
        if (runs.empty() || runs.back().offset + runs.back().len != buf.size()) runs.push_back(Run{buf.size(), 0});
        const size_t before = buf.size();
        if (indent == 0) {
            buf.put(text, len);
            open = text[len - 1] != '\n';
        } else {
            char *const first = buf.end();
            char *d = first;
            bool going_on = open;
            for (const char *p = text, *end = text + len; p < end;) {
                // A line with text is indented, unless it goes on with an open one.
                if (!going_on && *p != '\n') d = indent_line(d, indent);
                const size_t n = copy_line(d, p, end);
                d += n;
                going_on = p[n - 1] != '\n';  // a last piece without its "\n" is never empty
                p += n;
            }
            buf.grow(size_t(d - first));
            open = going_on;
        }
        runs.back().len += buf.size() - before;
        size += buf.size() - before;
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
    Buffer text;
};

std::mutex g_lock;
std::map<uint32_t, std::unique_ptr<Generation>> g_gens;
uint32_t g_last_handle;
// The generation found last: text comes line by line, nearly always to the same generation.
uint32_t g_found_handle;
Generation *g_found;
// The buffer of the last generation that ended, kept for the next one: a service answering
// request after request writes its text into memory it has touched already, instead of having
// the pages of megabytes of text mapped and cleared anew each time. It holds at most what the
// largest text took.
Buffer g_spare;

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

// The rendered text's length: every element's text, an open last line's "\n", the group lines.
size_t rendered_size(const Generation &g) {
    size_t total = g.group_lines.size();
    for (const Element &e : g.elements) total += e.size + (e.open ? 1 : 0);
    return total;
}

// Writes the rendered text at dst (rendered_size(g) + 1 bytes): the elements in order, each
// open last line ended, then the group lines and the terminator. One copy of each line.
void write_rendered(const Generation &g, const std::vector<size_t> &order, char *dst) {
    for (size_t i : order) {
        const Element &e = g.elements[i];
        for (const Run &r : e.runs) {
            std::memcpy(dst, g.text.data() + r.offset, r.len);
            dst += r.len;
        }
        if (e.open) *dst++ = '\n';
    }
    std::memcpy(dst, g.group_lines.data(), g.group_lines.size());
    dst[g.group_lines.size()] = '\0';
}

// Renders the text of a generation that ends, NUL-terminated: a text that lies in its
// generation's buffer in rendering order is that buffer, taken over as it is; otherwise it is
// written into a buffer sized exactly. Only the first len bytes (and the terminator) of the
// result are its text. Throws std::bad_alloc.
Buffer render_ending(Generation &g, uint32_t &len) {
    const std::vector<size_t> order = render_order(g);
    const size_t total = rendered_size(g);
    size_t at = 0;  // where the text rendered so far ends in the buffer, while it is in order
    for (size_t i = 0; i < order.size() && at != SIZE_MAX; ++i) {
        const Element &e = g.elements[order[i]];
        for (const Run &r : e.runs) at = r.offset == at ? at + r.len : SIZE_MAX;
        if (e.open) at = SIZE_MAX;  // its "\n" goes between it and the next element
    }
    Buffer out;
    if (at == g.text.size()) {
        out = std::move(g.text);
        out.reserve(g.group_lines.size() + 1);
        out.put(g.group_lines.data(), g.group_lines.size());
        out.data()[out.size()] = '\0';
    } else {
        out.reserve(total + 1);
        write_rendered(g, order, out.data());
    }
    len = uint32_t(total);
    return out;
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
        e->append(g.text, text, 2 * size_t(level));
        return int32_t(0);
    });
}

// Takes the generation out of the table, ending it; NULL when there is none.
std::unique_ptr<Generation> take(uint32_t handle) {
    std::lock_guard<std::mutex> lock(g_lock);
    auto it = g_gens.find(handle);
    if (it == g_gens.end()) return nullptr;
    std::unique_ptr<Generation> g = std::move(it->second);
    g_gens.erase(it);
    forget(handle);
    return g;
}

// Keeps the buffer of a generation that ended, responded or given up, for the next one (the one
// kept before goes).
void keep_spare(Buffer &&text) {
    std::lock_guard<std::mutex> lock(g_lock);
    g_spare = std::move(text);
}

// Ends the generation and renders its text.
int32_t finish(uint32_t handle, Buffer &text, uint32_t &len) {
    const std::unique_ptr<Generation> g = take(handle);
    if (g == nullptr) return PTXT_ERR_HANDLE;
    try {
        text = render_ending(*g, len);
        return 0;
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
        g->text = std::move(g_spare);
        g->text.clear();
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
    const std::unique_ptr<Generation> g = take(handle);
    if (g == nullptr) return PTXT_ERR_HANDLE;
    keep_spare(std::move(g->text));
    return 0;
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
        const std::vector<size_t> order = render_order(g);
        const size_t total = rendered_size(g);
        *text = static_cast<char *>(std::malloc(total + 1));
        if (*text == nullptr) return PTXT_ERR_NO_MEMORY;
        write_rendered(g, order, *text);
        n = uint32_t(total);
        return int32_t(0);
    });
    if (st == 0 && len != nullptr) *len = n;
    return st;
}

int32_t ptxt_respond(uint32_t handle, void *msg, void *req) {
    Buffer text;
    uint32_t len = 0;
    const int32_t st = finish(handle, text, len);
    if (st != 0) return st;
    const ptxt_request *r = static_cast<const ptxt_request *>(req);
    const int32_t result =
        r == nullptr ? PTXT_ERR_INVALID : r->sink == nullptr ? 0 : r->sink(r->sink_arg, msg, text.data(), len);
    keep_spare(std::move(text));
    return result;
}

}  // extern "C"
