// Reading a store that may be damaged.
//
// LMDB maps a store's file and trusts it. The damage it meets in page headers and page numbers it
// reports (kvdb_read_failure), but a damaged length or offset sends a read outside the file
// (SIGBUS) or outside the map (SIGSEGV), or fails one of LMDB's own assertions (SIGABRT). None of
// these may end a program silently: the tools, and zfxd while it rebuilds its state at start, turn
// every one of them into one message on standard error,
//     PROGRAM: the store LOCATION is damaged or unreadable
// and exit status 1.
//
// A program calls guard_store_reads once, at the start of main. From then on a StoreGuard arms the
// guard for its store while it lives, and walk_store reads a whole store under one.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

namespace zfxtool {

// "the store LOCATION is damaged or unreadable": the message after "PROGRAM: ", for the guard's
// handler and for the damage a status reports alike.
std::string damaged_text(const std::string &location);

// Names the program in the guard's message, and lets every StoreGuard that follows arm. Without
// it a StoreGuard does nothing (a test suite reading stores in-process keeps its own handlers).
void guard_store_reads(const char *program);

// While it lives, SIGBUS, SIGSEGV and SIGABRT print the message for location and end the process
// with status 1 (the handler only writes the message prepared here and calls _exit). The handlers
// that were there before come back when the outermost guard goes; an inner guard names its own
// store and gives the name back to the outer one when it goes. For one thread at a time: the
// tools and zfxd read their stores from one thread.
class StoreGuard {
public:
    explicit StoreGuard(const std::string &location);
    ~StoreGuard();
    StoreGuard(const StoreGuard &) = delete;
    StoreGuard &operator=(const StoreGuard &) = delete;

private:
    std::string message_;               // the whole line the handler writes
    const std::string *outer_ = nullptr;  // the outer guard's line, given back when this one goes
    bool armed_ = false;
};

enum class StoreState {
    readable,
    absent,   // no store at the location: no data file in the directory, or an unknown "mem:" name
    damaged,  // the store does not open, a move or lookup failed, its keys are out of order, or a
              // key is longer than any key a store holds
};

// Walks the whole store at location in key order under a StoreGuard, reading every byte of every
// key and value, and calls each (when given) for every record on the way. Damage that no status
// reports ends the process as StoreGuard says (once guard_store_reads was called). A walk that
// found the store readable has read every page that a later walk or lookup of it reads, so a
// caller that must not act on part of a store walks it once without each, then acts.
using RecordFn = std::function<void(const uint8_t *key, uint32_t key_len, const uint8_t *value, uint32_t value_len)>;
StoreState walk_store(const std::string &location, const RecordFn &each = nullptr);

}  // namespace zfxtool
