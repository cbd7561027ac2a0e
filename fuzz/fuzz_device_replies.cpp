// Arbitrary replies to the raw-message queries, the name-server query, the device batches (the
// plain one and both name-server views) and the TLV-encoded device replies. Whatever the bytes, a
// function answers with its documented result, never reads past the reply, and leaves nothing
// allocated but what it hands over. A TLV reply that the checked decoder accepts lies within its
// length, so the decoder without a length must read it into the same entries.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "fake_service.hpp"
#include "fuzz_input.hpp"
#include "zfx_service.h"

using zfxfuzz::finding;
using zfxtest::Answer;

namespace {

bool same_ns(const zfx_device_ns_entry &a, const zfx_device_ns_entry &b) {
    return std::memcmp(&a.vsans, &b.vsans, sizeof a.vsans) == 0 &&
           std::memcmp(a.ns_block, b.ns_block, sizeof a.ns_block) == 0 && a.pair_count == b.pair_count &&
           (a.pair_count == 0 || std::memcmp(a.pairs, b.pairs, a.pair_count * sizeof *a.pairs) == 0);
}

void release(zfx_device_ns_entry *e, uint32_t n) {
    for (uint32_t i = 0; i < n; ++i) {
        if ((e[i].pair_count == 0) != (e[i].pairs == nullptr)) finding("pair count and array disagree");
        if (e[i].pair_count > ZFX_PV_VSAN_PAIRS_MAX) finding("more pairs than VSANs");
        std::free(e[i].pairs);
    }
    std::free(e);
}

}  // namespace

// The decoders report unknown entry types on standard output; the fuzzer's own report is on
// standard error.
extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    return std::freopen("/dev/null", "w", stdout) != nullptr ? 0 : 1;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    zfxfuzz::Input in(data, size);
    const uint8_t which = in.take<uint8_t>();
    // The reply in a block of exactly its size, so that any read past it is caught.
    const std::vector<uint8_t> reply = in.rest();
    auto *exact = static_cast<uint8_t *>(std::malloc(reply.size() + 1));
    if (!reply.empty()) std::memcpy(exact, reply.data(), reply.size());
    const uint32_t len = uint32_t(reply.size());

    zfxtest::FakeService svc;
    svc.answer(Answer::reply_with(reply));
    for (int i = 0; i < 8; ++i) svc.answer(Answer::reply_with(reply));  // per-VSAN values
    switch (which % 8) {
        case 0: {
            zfx_device_entry *e = nullptr;
            int32_t n = 0;
            const int32_t r = zfx2_device_entry_parse_checked(exact, len, &e, &n);
            if ((r == 0) != (e != nullptr) || (r == 0 && n < 1)) finding("device entries and result disagree");
            if (r == 0) {
                zfx_device_entry *u = nullptr;
                int32_t un = 0;
                if (zfx2_device_entry_parse(exact, &u, &un) != 0 || un != n ||
                    std::memcmp(u, e, size_t(n) * sizeof *e) != 0)
                    finding("the decoders without and with a length disagree");
                std::free(u);
            }
            std::free(e);
            break;
        }
        case 1: {
            zfx_device_ns_entry *e = nullptr;
            int32_t n = 0;
            const int32_t r = zfx2_device_ns_entry_parse_checked(exact, len, &e, &n);
            if ((r == 0) != (e != nullptr) || (r == 0 && n < 1)) finding("name-server entries and result disagree");
            if (r == 0) {
                zfx_device_ns_entry *u = nullptr;
                int32_t un = 0;
                if (zfx2_device_ns_entry_parse(exact, &u, &un) != 0 || un != n) {
                    finding("the name-server decoders without and with a length disagree");
                }
                for (int32_t i = 0; i < n; ++i)
                    if (!same_ns(u[i], e[i])) finding("the name-server decoders read other entries");
                release(u, uint32_t(un));
                release(e, uint32_t(n));
            }
            break;
        }
        case 2: {
            uint32_t domain = 0;
            zfx_get_native_domain(svc.ep(), 1, 2, &domain);
            if (domain > 0xFF) finding("a domain wider than a byte");
            break;
        }
        case 3: {
            zfx_proxy_domain_list list{};
            zfx_get_proxy_domain_list(svc.ep(), 1, &list);
            break;
        }
        case 4: {
            dir_entry entry;
            if (zfx_ns_get_entry_given_portname(svc.ep(), 1, 2, 3, &entry) == 0 &&
                entry.symbolic_name[DIR_SYMBOLIC_NAME_SIZE - 1] != '\0')
                finding("an unterminated symbolic name");
            break;
        }
        case 5:
        case 6: {
            zfx_device_entry *h;
            zfx_device_entry_handle_init(&h);
            zfx_device_ns_entry *e = nullptr;
            uint32_t n = 0;
            const auto batch = which % 8 == 5 ? zfx2_device_ns_entry_get_next : zfx_device_ns_entry_get_next;
            if (batch(svc.ep(), h, &e, &n) == 0) {
                if ((n == 0) != (e == nullptr)) finding("a batch's count and entries disagree");
                release(e, n);
            }
            break;
        }
        default: {
            zfx_device_entry *h;
            zfx_device_entry_handle_init(&h);
            zfx_device_entry *e = nullptr;
            uint32_t n = 0;
            if (zfx_device_entry_get_next(svc.ep(), h, &e, &n) == 0) {
                if (n != len / ZFX_DEVICE_ENTRY_SIZE || (n == 0) != (e == nullptr)) finding("a batch of another count");
                if (n != 0 && std::memcmp(h, &e[n - 1], ZFX_DEVICE_ENTRY_SIZE) != 0)
                    finding("the cursor did not move to the batch's last device");
            }
            std::free(e);
            break;
        }
    }
    std::free(exact);
    return 0;
}
