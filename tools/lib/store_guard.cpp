// The store guard: the faults of reading a damaged store become one message and exit status 1.
#include "store_guard.hpp"

#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <iterator>
#include <string_view>

#include "cli.hpp"
#include "platform/kvdb.h"

namespace zfxtool {
namespace {

constexpr int kSignals[] = {SIGBUS, SIGSEGV, SIGABRT};

std::string g_program;  // empty: guard_store_reads was not called, guards do nothing
int g_depth = 0;        // guards alive
struct sigaction g_saved[std::size(kSignals)];
// The line the handler writes: the innermost guard's. Set before the handlers go in.
std::atomic<const std::string *> g_message{nullptr};
static_assert(std::atomic<const std::string *>::is_always_lock_free, "read in a signal handler");
// Where a walk leaves what it read, so that the compiler keeps the reads.
volatile uint8_t g_read_sink;

// Only what is safe in a signal handler: write the prepared line, then _exit. The read is not
// resumed (LMDB's state and ours may be anywhere), and nothing a reader holds needs more than the
// kernel's cleanup.
extern "C" void on_store_fault(int) {
    if (const std::string *m = g_message.load(std::memory_order_relaxed)) {
        const char *p = m->data();
        size_t left = m->size();
        while (left > 0) {
            const ssize_t n = write(STDERR_FILENO, p, left);
            if (n <= 0) break;
            p += n;
            left -= size_t(n);
        }
    }
    _exit(kExitFailure);
}

// A store that does not open is absent when nothing is there to open; anything else there that
// does not open is damaged or unreadable.
StoreState not_opened(const std::string &location, int32_t status) {
    if (status != KVDB_ERR_OPEN) return StoreState::damaged;
    if (location.rfind(KVDB_LOCATION_MEM_PREFIX, 0) == 0) return StoreState::absent;
    struct stat st;
    if (stat((location + "/data.mdb").c_str(), &st) != 0 && (errno == ENOENT || errno == ENOTDIR))
        return StoreState::absent;
    return StoreState::damaged;
}

}  // namespace

std::string damaged_text(const std::string &location) {
    return "the store " + location + " is damaged or unreadable";
}

void guard_store_reads(const char *program) { g_program = program; }

StoreGuard::StoreGuard(const std::string &location) {
    if (g_program.empty()) return;
    message_ = g_program + ": " + damaged_text(location) + "\n";
    outer_ = g_message.exchange(&message_);
    armed_ = true;
    if (g_depth++ > 0) return;
    struct sigaction sa {};
    sa.sa_handler = on_store_fault;
    sigemptyset(&sa.sa_mask);
    for (size_t i = 0; i < std::size(kSignals); ++i) sigaction(kSignals[i], &sa, &g_saved[i]);
}

StoreGuard::~StoreGuard() {
    if (!armed_) return;
    if (--g_depth == 0)
        for (size_t i = 0; i < std::size(kSignals); ++i) sigaction(kSignals[i], &g_saved[i], nullptr);
    g_message.store(outer_);
}

StoreState walk_store(const std::string &location, const RecordFn &each) {
    const StoreGuard guard(location);
    int32_t status = 0;
    kvdb_store *store = kvdb_open(location.c_str(), &status);
    if (store == nullptr) return not_opened(location, status);
    StoreState state = StoreState::readable;
    std::string previous;
    uint8_t mix = 0;
    kvdb_cursor cursor{};
    for (kvdb_datum *k = kvdb_move2location(store, KVDB_LOC_FIRST, &cursor); k != nullptr;
         k = kvdb_move2location(store, KVDB_LOC_NEXT, &cursor)) {
        const kvdb_datum *v = kvdb_getvalue(store, &cursor);
        const std::string_view key(static_cast<const char *>(k->data), k->len);
        // Keys come out strictly ascending, memcmp's order (as string_view compares): a walk
        // that goes back has followed a damaged page, and might go round for ever.
        if (v == nullptr || key.empty() || key.size() > KVDB_KEY_MAX || (!previous.empty() && key <= previous)) {
            state = StoreState::damaged;
            break;
        }
        const auto *value = static_cast<const uint8_t *>(v->data);
        const uint32_t value_len = value != nullptr ? v->len : 0;
        // Every byte is read here, under the guard: a length that runs past the file faults now.
        for (const char c : key) mix ^= uint8_t(c);
        for (uint32_t i = 0; i < value_len; ++i) mix ^= value[i];
        if (each) each(reinterpret_cast<const uint8_t *>(key.data()), uint32_t(key.size()), value, value_len);
        previous.assign(key);
    }
    if (kvdb_read_failure(store) != 0) state = StoreState::damaged;
    kvdb_close(store);
    g_read_sink = mix;
    return state;
}

}  // namespace zfxtool
