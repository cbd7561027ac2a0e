// The persistent store: an LMDB backend (a directory) and an in-memory backend ("mem:") behind
// one handle type. The cursor logic (exact-match word, re-finding a cursor that is not the one
// the handle moved last) is written once here; a backend only seeks, steps and looks up.
#include "platform/kvdb.h"

#include <lmdb.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <new>
#include <string>
#include <string_view>

namespace {

constexpr size_t kMapSize = size_t(256) << 20;  // fits the i386 address space comfortably

std::mutex g_lock;  // guards both registries and the in-memory stores' shared state

bool valid_key(const kvdb_datum *key) {
    return key != nullptr && key->len >= 1 && key->len <= KVDB_KEY_MAX && key->data != nullptr;
}

std::string_view view(const kvdb_datum &d) {
    return d.len == 0 ? std::string_view() : std::string_view(static_cast<const char *>(d.data), d.len);
}

kvdb_datum datum(std::string_view s) { return kvdb_datum{const_cast<char *>(s.data()), uint32_t(s.size())}; }

// Copies a descriptor member by member. A backend writes one as a pointer and a 32-bit length;
// read back at once, as the one wide load a plain copy compiles to, it would wait for both writes
// to reach the cache instead of taking them as they go: a stall on every step of a walk.
void copy_datum(kvdb_datum &to, const kvdb_datum &from) {
    to.data = from.data;
    to.len = from.len;
}

bool is_mem(const char *location) {
    return std::strncmp(location, KVDB_LOCATION_MEM_PREFIX, sizeof KVDB_LOCATION_MEM_PREFIX - 1) == 0;
}

enum class Seek { ge, first, last, next, prev };

}  // namespace

// A handle. Reading handles implement the four backend operations; writing handles the three
// write operations. The base keeps what every reader shares: the descriptors handed out by
// kvdb_fetch and the serial of the cursor whose position the backend holds.
struct kvdb_store {
    explicit kvdb_store(bool w) : writer(w) {}
    virtual ~kvdb_store() = default;

    const bool writer;
    std::deque<kvdb_datum> fetched;  // deque: handed-out descriptors never move
    uint32_t serials = 0;
    uint32_t cached = 0;  // serial of the cursor the backend position belongs to; 0: none
    int32_t failure = 0;  // the first backend failure of a read (kvdb_read_failure)
    // Set by the LMDB reader alone. Its every move brings the value under its position along
    // (into at): the value of the cursor it moved last is then at, and kvdb_getvalue asks it
    // nothing. A walk's step calls its step_next directly, inline, rather than through the table
    // of virtual functions: a walk steps once for every record it reads.
    bool lmdb_reader = false;
    kvdb_datum at{};

    // Remembers st when it is the first failure: anything but success and a missing key.
    int32_t note(int32_t st) {
        if (failure == 0 && st != 0 && st != KVDB_NOT_FOUND) failure = st;
        return st;
    }

    // Reading. Keys and values point into storage that lives as long as the handle. A seek that
    // finds nothing because the backend failed, not because the keys ended, notes the failure
    // (and so does a move_fails that says yes); get's and current's statuses are noted by callers.
    virtual int32_t get(std::string_view /*key*/, kvdb_datum & /*value*/) { return KVDB_ERR_INVALID; }
    virtual bool seek(Seek /*how*/, std::string_view /*key*/, kvdb_datum & /*found*/) { return false; }
    // The value under the backend's position (a backend whose steps bring values along is not
    // asked).
    virtual int32_t current(kvdb_datum & /*value*/) { return KVDB_ERR_INVALID; }
    virtual bool move_fails() { return false; }
    // A walk's step from the backend's position to the next key: seek(Seek::next) unless the
    // move fails first.
    virtual bool step_next(kvdb_datum &found) { return !move_fails() && seek(Seek::next, {}, found); }

    // Writing. A NULL value deletes the key. append: the key must sort after every key held
    // (KVDB_ERR_INVALID otherwise).
    virtual int32_t put(std::string_view /*key*/, const std::string_view * /*value*/, bool /*append*/) { return KVDB_ERR_INVALID; }
    virtual int32_t clear() { return KVDB_ERR_INVALID; }
    virtual int32_t begin() { return KVDB_ERR_INVALID; }
    virtual int32_t end(bool /*commit*/) { return KVDB_ERR_INVALID; }
};

namespace {

// ---- in-memory backend ------------------------------------------------------------------------

// A value in a heap block of exactly its length (an empty value too has a block of its own): a
// reader that goes past the end of a value runs off its block, where the address sanitizer sees
// it, instead of into spare capacity or a string's inline buffer. Blocks are never changed once
// stored, so the snapshots of a store share them.
struct Value {
    std::shared_ptr<const char[]> bytes;
    size_t len = 0;

    explicit Value(std::string_view v) : len(v.size()) {
        char *block = new char[v.size()];
        if (!v.empty()) std::memcpy(block, v.data(), v.size());
        bytes.reset(block);
    }
    std::string_view view() const { return std::string_view(bytes.get(), len); }
};

using Map = std::map<std::string, Value, std::less<>>;

struct MemStore {
    std::shared_ptr<Map> data = std::make_shared<Map>();  // committed contents
    std::shared_ptr<Map> pending;                          // an open transaction's contents
    int32_t open_status = 0;
    int32_t key_status = 0;
    std::string fault_key;
    uint32_t cursor_fail_at = 0;
};

std::map<std::string, std::shared_ptr<MemStore>, std::less<>> g_mem;

std::shared_ptr<MemStore> mem_find(const char *location, bool create) {
    auto it = g_mem.find(std::string_view(location));
    if (it != g_mem.end()) return it->second;
    if (!create) return nullptr;
    auto s = std::make_shared<MemStore>();
    g_mem.emplace(location, s);
    return s;
}

struct MemReader final : kvdb_store {
    MemReader(std::shared_ptr<MemStore> s, std::shared_ptr<const Map> snap)
        : kvdb_store(false), store(std::move(s)), map(std::move(snap)), pos(map->end()) {}

    std::shared_ptr<MemStore> store;
    std::shared_ptr<const Map> map;  // the snapshot this handle sees
    Map::const_iterator pos;
    uint32_t moves = 0;

    int32_t injected(std::string_view key) {
        std::lock_guard<std::mutex> g(g_lock);
        return store->key_status != 0 && key == store->fault_key ? store->key_status : 0;
    }
    int32_t get(std::string_view key, kvdb_datum &value) override {
        if (int32_t st = injected(key)) return st;
        auto it = map->find(key);
        if (it == map->end()) return KVDB_NOT_FOUND;
        value = datum(it->second.view());
        return 0;
    }
    bool seek(Seek how, std::string_view key, kvdb_datum &found) override {
        switch (how) {
        case Seek::ge: pos = map->lower_bound(key); break;
        case Seek::first: pos = map->begin(); break;
        case Seek::last: pos = map->empty() ? map->end() : std::prev(map->end()); break;
        case Seek::next: pos = pos == map->end() ? pos : std::next(pos); break;
        case Seek::prev: pos = pos == map->begin() || pos == map->end() ? map->end() : std::prev(pos); break;
        }
        if (pos == map->end()) return false;
        found = datum(pos->first);
        return true;
    }
    int32_t current(kvdb_datum &value) override {
        if (pos == map->end()) return KVDB_NOT_FOUND;
        if (int32_t st = injected(pos->first)) return st;
        value = datum(pos->second.view());
        return 0;
    }
    bool move_fails() override {
        std::lock_guard<std::mutex> g(g_lock);
        ++moves;
        if (store->cursor_fail_at == 0 || moves < store->cursor_fail_at) return false;
        note(KVDB_ERR_IO);
        return true;
    }
};

struct MemWriter final : kvdb_store {
    explicit MemWriter(std::shared_ptr<MemStore> s) : kvdb_store(true), store(std::move(s)) {}
    ~MemWriter() override {
        if (in_txn) end(false);
    }
    std::shared_ptr<MemStore> store;
    bool in_txn = false;

    int32_t put(std::string_view key, const std::string_view *value, bool append) override {
        std::lock_guard<std::mutex> g(g_lock);
        if (!in_txn && store->pending) return KVDB_ERR_TXN;
        std::shared_ptr<Map> &target = in_txn ? store->pending : store->data;
        // Readers hold the committed map: copy it before changing it under them.
        if (!in_txn && target.use_count() > 1) target = std::make_shared<Map>(*target);
        if (value == nullptr) {
            auto it = target->find(key);
            if (it == target->end()) return KVDB_NOT_FOUND;
            target->erase(it);
            return 0;
        }
        if (append) {
            if (!target->empty() && target->rbegin()->first >= key) return KVDB_ERR_INVALID;
            target->emplace_hint(target->end(), std::string(key), Value(*value));
            return 0;
        }
        target->insert_or_assign(std::string(key), Value(*value));
        return 0;
    }
    int32_t clear() override {
        std::lock_guard<std::mutex> g(g_lock);
        if (!in_txn && store->pending) return KVDB_ERR_TXN;
        // Readers hold the committed map: a new one replaces it under them.
        (in_txn ? store->pending : store->data) = std::make_shared<Map>();
        return 0;
    }
    int32_t begin() override {
        std::lock_guard<std::mutex> g(g_lock);
        if (store->pending) return KVDB_ERR_TXN;
        store->pending = std::make_shared<Map>(*store->data);
        in_txn = true;
        return 0;
    }
    int32_t end(bool commit) override {
        std::lock_guard<std::mutex> g(g_lock);
        if (!in_txn) return KVDB_ERR_TXN;
        if (commit) store->data = std::move(store->pending);
        store->pending.reset();
        in_txn = false;
        return 0;
    }
};

// ---- LMDB backend -------------------------------------------------------------------------------
// LMDB forbids opening one environment twice in a process (its locks are per process), so every
// handle on a directory shares one environment, found by the directory's device and inode.

struct Env {
    MDB_env *env = nullptr;
    MDB_dbi dbi = 0;
    dev_t dev = 0;
    ino_t ino = 0;
    int refs = 0;
    bool txn_open = false;  // a write transaction of this process is under way
    uintptr_t page_size = 0;  // of the store's pages (a power of two)
};

std::map<std::pair<dev_t, ino_t>, Env *> g_envs;

int32_t lmdb_status(int rc) {
    if (rc == 0) return 0;
    if (rc == MDB_NOTFOUND) return KVDB_NOT_FOUND;
    if (rc == MDB_MAP_FULL) return KVDB_ERR_FULL;
    if (rc == ENOMEM) return KVDB_ERR_NO_MEMORY;
    return KVDB_ERR_IO;
}

// Takes a reference on the environment of the directory at path (opening it when needed).
int32_t env_acquire(const char *path, Env *&out) {
    struct stat st;
    if (stat(path, &st) != 0 || !S_ISDIR(st.st_mode)) return KVDB_ERR_OPEN;
    std::lock_guard<std::mutex> g(g_lock);
    auto it = g_envs.find({st.st_dev, st.st_ino});
    if (it != g_envs.end()) {
        ++it->second->refs;
        out = it->second;
        return 0;
    }
    auto *e = new Env;
    e->dev = st.st_dev;
    e->ino = st.st_ino;
    int rc = mdb_env_create(&e->env);
    if (rc == 0) rc = mdb_env_set_mapsize(e->env, kMapSize);
    // NOTLS: several read transactions (handles) may live in one thread.
    if (rc == 0) {
        rc = mdb_env_open(e->env, path, MDB_NOTLS, 0644);
        if (rc == EACCES || rc == EROFS) rc = mdb_env_open(e->env, path, MDB_NOTLS | MDB_RDONLY, 0644);
    }
    MDB_txn *txn = nullptr;
    if (rc == 0) rc = mdb_txn_begin(e->env, nullptr, MDB_RDONLY, &txn);
    if (rc == 0) rc = mdb_dbi_open(txn, nullptr, 0, &e->dbi);
    MDB_stat stat{};
    if (rc == 0) rc = mdb_env_stat(e->env, &stat);
    e->page_size = stat.ms_psize;
    if (txn != nullptr) mdb_txn_abort(txn);
    if (rc != 0) {
        if (e->env != nullptr) mdb_env_close(e->env);
        delete e;
        return rc == ENOMEM ? KVDB_ERR_NO_MEMORY : KVDB_ERR_OPEN;
    }
    e->refs = 1;
    g_envs[{e->dev, e->ino}] = e;
    out = e;
    return 0;
}

void env_release(Env *e) {
    std::lock_guard<std::mutex> g(g_lock);
    if (--e->refs > 0) return;
    g_envs.erase({e->dev, e->ino});
    mdb_env_close(e->env);
    delete e;
}

MDB_val mval(std::string_view s) { return MDB_val{s.size(), const_cast<char *>(s.data())}; }
kvdb_datum datum(const MDB_val &v) { return kvdb_datum{v.mv_data, uint32_t(v.mv_size)}; }

// A read handle keeps one read transaction for its whole life: that is what keeps every value it
// handed out valid until it is closed.
struct LmdbReader final : kvdb_store {
    LmdbReader() : kvdb_store(false) { lmdb_reader = true; }
    ~LmdbReader() override {
        if (cur != nullptr) mdb_cursor_close(cur);
        if (txn != nullptr) mdb_txn_abort(txn);
        if (env != nullptr) env_release(env);
    }
    Env *env = nullptr;
    MDB_txn *txn = nullptr;
    MDB_cursor *cur = nullptr;

    int32_t get(std::string_view key, kvdb_datum &value) override {
        MDB_val k = mval(key), v;
        int32_t st = lmdb_status(mdb_get(txn, env->dbi, &k, &v));
        if (st == 0) value = datum(v);
        return st;
    }
    // A step brings the value along with the key: it is kept for kvdb_getvalue, which a walk
    // calls for nearly every key.
    bool seek(Seek how, std::string_view key, kvdb_datum &found) override {
        static constexpr MDB_cursor_op ops[] = {MDB_SET_RANGE, MDB_FIRST, MDB_LAST, MDB_NEXT, MDB_PREV};
        return move(mval(key), ops[int(how)], found);
    }
    // A move never fails here before it is made.
    bool step_next(kvdb_datum &found) final {
        if (!move(MDB_val{}, MDB_NEXT, found)) return false;
        ask_ahead(found.data);
        return true;
    }

private:
    // Asks for the stored entries up to kAhead bytes on from the one whose key is at key, so that
    // a walk finds them in the cache. A leaf page holds its entries from its end down, in key
    // order, and a store written in key order has the next leaf in the next page: a walk reads
    // each page downward, then goes on from the next page's end. The processor's own prefetching
    // stops at every page's edge, and a walk that works between its steps (the configuration
    // text) would otherwise wait on every line of every page. A step asks for the line kAhead
    // bytes on, and, past entries longer than a line, for the lines between it and the one asked
    // for last. An address asked for in vain costs nothing: asking never faults.
    void ask_ahead(const void *key) {
        constexpr uintptr_t kAhead = 1024, kLine = 64;
        const uintptr_t page = env->page_size, here = reinterpret_cast<uintptr_t>(key), into = here & (page - 1);
        const uintptr_t ahead = (into >= kAhead ? here - kAhead : here + 2 * page - kAhead) & ~(kLine - 1);
        __builtin_prefetch(reinterpret_cast<const void *>(ahead));
        // The unsigned difference is large when the line asked for last lies below this one (a new
        // page, or the first step).
        if (asked_ - ahead > kLine && asked_ - ahead < kAhead)
            for (uintptr_t line = asked_ - kLine; line > ahead; line -= kLine)
                __builtin_prefetch(reinterpret_cast<const void *>(line));
        asked_ = ahead;
    }
    uintptr_t asked_ = 0;  // the line a step asked for last

    bool move(MDB_val k, MDB_cursor_op op, kvdb_datum &found) {
        MDB_val v;
        if (const int rc = mdb_cursor_get(cur, &k, &v, op); rc != 0) {
            note(lmdb_status(rc));
            return false;
        }
        at.data = v.mv_data;
        at.len = uint32_t(v.mv_size);
        found.data = k.mv_data;
        found.len = uint32_t(k.mv_size);
        return true;
    }
};

struct LmdbWriter final : kvdb_store {
    LmdbWriter() : kvdb_store(true) {}
    ~LmdbWriter() override {
        if (txn != nullptr) end(false);
        if (env != nullptr) env_release(env);
    }
    Env *env = nullptr;
    MDB_txn *txn = nullptr;

    int32_t put(std::string_view key, const std::string_view *value, bool append) override {
        const bool own = txn == nullptr;
        if (own) {
            if (int32_t st = begin()) return st;
        }
        MDB_val k = mval(key);
        int rc;
        if (value == nullptr) {
            rc = mdb_del(txn, env->dbi, &k, nullptr);
        } else {
            MDB_val v = mval(*value);
            rc = mdb_put(txn, env->dbi, &k, &v, append ? MDB_APPEND : 0);
        }
        // LMDB refuses a key out of order for an append as if it were there already.
        int32_t st = append && rc == MDB_KEYEXIST ? KVDB_ERR_INVALID : lmdb_status(rc);
        if (own) {
            int32_t end_st = end(st == 0);
            if (st == 0) st = end_st;
        }
        return st;
    }
    int32_t clear() override {
        const bool own = txn == nullptr;
        if (own) {
            if (int32_t st = begin()) return st;
        }
        int32_t st = lmdb_status(mdb_drop(txn, env->dbi, 0));
        if (own) {
            int32_t end_st = end(st == 0);
            if (st == 0) st = end_st;
        }
        return st;
    }
    int32_t begin() override {
        {
            std::lock_guard<std::mutex> g(g_lock);
            if (env->txn_open) return KVDB_ERR_TXN;  // a second writer would wait for ever
            env->txn_open = true;
        }
        int rc = mdb_txn_begin(env->env, nullptr, 0, &txn);
        if (rc != 0) {
            txn = nullptr;
            std::lock_guard<std::mutex> g(g_lock);
            env->txn_open = false;
        }
        return lmdb_status(rc);
    }
    int32_t end(bool commit) override {
        if (txn == nullptr) return KVDB_ERR_TXN;
        int rc = 0;
        if (commit) rc = mdb_txn_commit(txn);
        else mdb_txn_abort(txn);
        txn = nullptr;
        std::lock_guard<std::mutex> g(g_lock);
        env->txn_open = false;
        return lmdb_status(rc);
    }
};

std::string data_file(const char *dir) { return std::string(dir) + "/data.mdb"; }

kvdb_store *open_lmdb(const char *location, bool writer, int32_t &st) {
    struct stat sb;
    if (writer) {
        if (mkdir(location, 0755) != 0 && errno != EEXIST) {
            st = KVDB_ERR_OPEN;
            return nullptr;
        }
    } else if (stat(data_file(location).c_str(), &sb) != 0) {
        st = KVDB_ERR_OPEN;  // a reader never creates a store
        return nullptr;
    }
    Env *env = nullptr;
    if ((st = env_acquire(location, env)) != 0) return nullptr;
    if (writer) {
        auto *w = new LmdbWriter;
        w->env = env;
        return w;
    }
    auto *r = new LmdbReader;
    r->env = env;
    int rc = mdb_txn_begin(env->env, nullptr, MDB_RDONLY, &r->txn);
    if (rc == 0) rc = mdb_cursor_open(r->txn, env->dbi, &r->cur);
    if (rc != 0) {
        st = rc == ENOMEM ? KVDB_ERR_NO_MEMORY : KVDB_ERR_OPEN;
        delete r;  // releases whatever of the transaction and the environment it holds
        return nullptr;
    }
    return r;
}

kvdb_store *open_any(const char *location, bool writer, int32_t *status) {
    int32_t st = 0;
    kvdb_store *s = nullptr;
    try {
        if (location == nullptr) {
            st = KVDB_ERR_INVALID;
        } else if (is_mem(location)) {
            std::lock_guard<std::mutex> g(g_lock);
            auto m = mem_find(location, writer);
            if (m == nullptr) st = KVDB_ERR_OPEN;
            else if (writer) s = new MemWriter(m);
            else if (m->open_status != 0) st = m->open_status;
            else s = new MemReader(m, m->data);
        } else {
            s = open_lmdb(location, writer, st);
        }
    } catch (const std::bad_alloc &) {
        delete s;
        s = nullptr;
        st = KVDB_ERR_NO_MEMORY;
    }
    if (status != nullptr) *status = st;
    return s;
}

kvdb_store *reader(kvdb_store *s) { return s != nullptr && !s->writer ? s : nullptr; }
kvdb_store *writer(kvdb_store *s) { return s != nullptr && s->writer ? s : nullptr; }

kvdb_datum *fetch(kvdb_store *store, const kvdb_datum *key, int32_t *status) {
    int32_t st = KVDB_ERR_INVALID;
    kvdb_datum *out = nullptr;
    if (reader(store) != nullptr && valid_key(key)) {
        kvdb_datum v{};
        st = store->note(store->get(view(*key), v));
        if (st == 0) {
            try {
                out = &store->fetched.emplace_back(v);
            } catch (const std::bad_alloc &) {
                st = KVDB_ERR_NO_MEMORY;
            }
        }
    }
    if (status != nullptr) *status = st;
    return out;
}

// Places cursor on what the backend found (or leaves it unpositioned) and returns its key.
kvdb_datum *land(kvdb_store *store, kvdb_cursor *cursor, bool found, const kvdb_datum &key, uint32_t match) {
    cursor->match = match;
    cursor->value = kvdb_datum{nullptr, 0};
    cursor->store = store;
    if (!found) {
        cursor->serial = 0;
        cursor->key = kvdb_datum{nullptr, 0};
        store->cached = 0;
        return nullptr;
    }
    if (++store->serials == 0) store->serials = 1;
    cursor->serial = store->cached = store->serials;
    copy_datum(cursor->key, key);
    return &cursor->key;
}

bool owns_position(const kvdb_store *store, const kvdb_cursor *cursor) {
    return cursor->store == store && cursor->serial != 0 && cursor->serial == store->cached;
}

// A walk's step from the backend's position (see lmdb_reader).
bool step_next(kvdb_store *store, kvdb_datum &found) {
    return store->lmdb_reader ? static_cast<LmdbReader *>(store)->step_next(found) : store->step_next(found);
}

// kvdb_move2location's every other move (store is a reader, cursor not NULL), kept out of the
// step's way.
__attribute__((noinline)) kvdb_datum *move_any(kvdb_store *store, uint32_t location, kvdb_cursor *cursor) {
    kvdb_datum found{};
    if (location < KVDB_LOC_FIRST || location > KVDB_LOC_PREV) return nullptr;
    const bool relative = location == KVDB_LOC_NEXT || location == KVDB_LOC_PREV;
    if (relative && cursor->key.data == nullptr) return nullptr;
    if (store->move_fails()) return land(store, cursor, false, found, 0);
    bool ok;
    if (location == KVDB_LOC_FIRST) {
        ok = store->seek(Seek::first, {}, found);
    } else if (location == KVDB_LOC_LAST) {
        ok = store->seek(Seek::last, {}, found);
    } else if (owns_position(store, cursor)) {
        ok = store->seek(Seek::prev, {}, found);  // the step on (KVDB_LOC_NEXT) never comes here
    } else {
        // Not the cursor the backend moved last: find its key again, then step from there. A key
        // this handle no longer holds (a cursor of another handle) counts from where it would be.
        const std::string_view at = view(cursor->key);
        ok = store->seek(Seek::ge, at, found);
        if (location == KVDB_LOC_NEXT) {
            if (ok && view(found) == at) ok = store->seek(Seek::next, {}, found);
        } else {
            ok = ok ? store->seek(Seek::prev, {}, found) : store->seek(Seek::last, {}, found);
        }
    }
    return land(store, cursor, ok, found, 0);
}

// kvdb_getvalue for every cursor but one the LMDB reader's walk has just placed, kept out of the
// walk's way.
__attribute__((noinline)) kvdb_datum *value_any(kvdb_store *store, kvdb_cursor *cursor) {
    if (reader(store) == nullptr || cursor == nullptr || cursor->key.data == nullptr) return nullptr;
    kvdb_datum v{};
    const int32_t st = owns_position(store, cursor) ? store->current(v) : store->get(view(cursor->key), v);
    if (store->note(st) != 0) return nullptr;
    copy_datum(cursor->value, v);
    return &cursor->value;
}

}  // namespace

extern "C" {

kvdb_store *kvdb_open(const char *location, int32_t *status) { return open_any(location, false, status); }

kvdb_store *kvdb_create(const char *location, int32_t *status) { return open_any(location, true, status); }

int32_t kvdb_close(kvdb_store *store) {
    delete store;
    return 0;
}

kvdb_datum *kvdb_fetch(kvdb_store *store, const kvdb_datum *key, int32_t *status) {
    return fetch(store, key, status);
}

kvdb_datum *kvdb2_fetch(kvdb_store *store, const kvdb_datum *key, int32_t *status) {
    return fetch(store, key, status);
}

kvdb_datum *kvdb_move2key(kvdb_store *store, const kvdb_datum *key, kvdb_cursor *cursor) {
    if (reader(store) == nullptr || cursor == nullptr) return nullptr;
    kvdb_datum found{};
    if (!valid_key(key) || store->move_fails()) return land(store, cursor, false, found, 1);
    bool ok = store->seek(Seek::ge, view(*key), found);
    bool exact = ok && view(found) == view(*key);
    return land(store, cursor, ok, found, exact ? 0 : 1);
}

kvdb_datum *kvdb_move2location(kvdb_store *store, uint32_t location, kvdb_cursor *cursor) {
    if (reader(store) == nullptr || cursor == nullptr) return nullptr;
    // A walk's step, nearly every move: the cursor the backend moved last, one key on.
    if (location == KVDB_LOC_NEXT && cursor->key.data != nullptr && owns_position(store, cursor)) {
        kvdb_datum found{};
        return land(store, cursor, step_next(store, found), found, 0);
    }
    return move_any(store, location, cursor);
}

kvdb_datum *kvdb_getvalue(kvdb_store *store, kvdb_cursor *cursor) {
    // A walk's value, nearly every call: the one the step that placed the cursor brought along.
    if (store != nullptr && store->lmdb_reader && cursor != nullptr && cursor->key.data != nullptr &&
        owns_position(store, cursor)) {
        copy_datum(cursor->value, store->at);
        return &cursor->value;
    }
    return value_any(store, cursor);
}

int32_t kvdb_read_failure(const kvdb_store *store) {
    return store != nullptr && !store->writer ? store->failure : KVDB_ERR_INVALID;
}

namespace {
int32_t store_value(kvdb_store *store, const kvdb_datum *key, const kvdb_datum *value, bool append) {
    if (writer(store) == nullptr || !valid_key(key)) return KVDB_ERR_INVALID;
    if (value != nullptr && value->len != 0 && value->data == nullptr) return KVDB_ERR_INVALID;
    const std::string_view v = value == nullptr ? std::string_view() : view(*value);
    try {
        return store->put(view(*key), &v, append);
    } catch (const std::bad_alloc &) {
        return KVDB_ERR_NO_MEMORY;
    }
}
}  // namespace

int32_t kvdb_put(kvdb_store *store, const kvdb_datum *key, const kvdb_datum *value) {
    return store_value(store, key, value, false);
}

int32_t kvdb_append(kvdb_store *store, const kvdb_datum *key, const kvdb_datum *value) {
    return store_value(store, key, value, true);
}

int32_t kvdb_delete(kvdb_store *store, const kvdb_datum *key) {
    if (writer(store) == nullptr || !valid_key(key)) return KVDB_ERR_INVALID;
    try {
        return store->put(view(*key), nullptr, false);
    } catch (const std::bad_alloc &) {
        return KVDB_ERR_NO_MEMORY;
    }
}

int32_t kvdb_clear(kvdb_store *store) {
    if (writer(store) == nullptr) return KVDB_ERR_INVALID;
    try {
        return store->clear();
    } catch (const std::bad_alloc &) {
        return KVDB_ERR_NO_MEMORY;
    }
}

int32_t kvdb_txn_begin(kvdb_store *store) {
    if (writer(store) == nullptr) return KVDB_ERR_INVALID;
    try {
        return store->begin();
    } catch (const std::bad_alloc &) {
        return KVDB_ERR_NO_MEMORY;
    }
}

int32_t kvdb_txn_commit(kvdb_store *store) { return writer(store) ? store->end(true) : KVDB_ERR_INVALID; }

int32_t kvdb_txn_abort(kvdb_store *store) { return writer(store) ? store->end(false) : KVDB_ERR_INVALID; }

int32_t kvdb_destroy(const char *location) {
    if (location == nullptr) return KVDB_ERR_INVALID;
    std::lock_guard<std::mutex> g(g_lock);
    if (is_mem(location)) {
        auto it = g_mem.find(std::string_view(location));
        if (it == g_mem.end()) return KVDB_ERR_OPEN;
        g_mem.erase(it);
        return 0;
    }
    struct stat st;
    if (stat(location, &st) != 0 || !S_ISDIR(st.st_mode)) return KVDB_ERR_OPEN;
    if (g_envs.count({st.st_dev, st.st_ino}) != 0) return KVDB_ERR_TXN;
    const std::string dir(location);
    int removed = 0;
    for (const char *f : {"/data.mdb", "/lock.mdb"}) removed += unlink((dir + f).c_str()) == 0;
    if (removed == 0) return KVDB_ERR_OPEN;
    rmdir(location);  // only when empty: the caller's own files stay
    return 0;
}

int32_t kvdb_mem_inject(const char *location, const kvdb_mem_faults *faults) {
    if (location == nullptr || !is_mem(location)) return KVDB_ERR_INVALID;
    if (faults != nullptr && faults->key_status != 0 &&
        (faults->key_len > KVDB_KEY_MAX || (faults->key == nullptr && faults->key_len != 0)))
        return KVDB_ERR_INVALID;
    try {
        std::lock_guard<std::mutex> g(g_lock);
        auto m = mem_find(location, true);
        static const kvdb_mem_faults none{};
        const kvdb_mem_faults &f = faults != nullptr ? *faults : none;
        m->open_status = f.open_status;
        m->key_status = f.key_status;
        m->fault_key.assign(static_cast<const char *>(f.key), f.key == nullptr ? 0 : f.key_len);
        m->cursor_fail_at = f.cursor_fail_at;
        return 0;
    } catch (const std::bad_alloc &) {
        return KVDB_ERR_NO_MEMORY;
    }
}

}  // extern "C"
