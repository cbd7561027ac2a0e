// Routing lookups, against the forwarding driver this executable plays.
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstring>
#include <random>
#include <thread>
#include <tuple>
#include <unistd.h>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "fake_service.hpp"
#include "fcfwd_driver.hpp"
#include "platform/tcam.h"
#include "platform/wwnsvc.h"
#include "zfx_service.h"

namespace {

using namespace zfxtest;

struct Ioctl {
    int fd;
    unsigned long request;
    Bytes arg;
};

// How the played driver answers, shared by the test thread and the threads that race for the
// first open; it keeps every control call.
struct Driver {
    FcfwdDriver &dev = fcfwd_driver();
    int fail_open = 0, fail_ioctl = 0;    // nonzero: the next open, or every control call, fails so
    std::atomic<int> gate{0}, entered{0};  // opens wait (2 s at most) until gate of them have begun
    std::vector<Ioctl> calls;
    uint32_t answer = 0;  // what the driver writes into the block's out field

    Driver() {
        dev.on_open = [this] {
            if (fail_open != 0) return std::exchange(fail_open, 0);
            ++entered;
            const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(2);
            while (entered < gate && std::chrono::steady_clock::now() < until) std::this_thread::yield();
            return 0;
        };
        dev.on_control = [this](int fd, unsigned long request, uint8_t *arg) {
            const bool native = request == ZFX_FCFWD_IOC_NATIVE_VSAN;
            if (!native && request != ZFX_FCFWD_IOC_NEXT_HOP) return ENOTTY;
            std::lock_guard<std::mutex> g(dev.mu);
            calls.push_back({fd, request, bytes_of(arg, native ? 20 : 36)});
            if (fail_ioctl != 0) return fail_ioctl;
            std::memcpy(arg + (native ? offsetof(zfx_fcfwd_native_vsan_arg, native_vsan)
                                      : offsetof(zfx_fcfwd_next_hop_arg, next_hop)),
                        &answer, 4);
            return 0;
        };
    }
    std::vector<Ioctl> seen() {
        std::lock_guard<std::mutex> g(dev.mu);
        return calls;
    }
} g_drv;

// Runs first: the device is opened on first use, a failed open is tried again, and two threads
// whose first calls race keep one descriptor.
TEST(ForwardingDevice, OpenedOnceFirstFailureRetriedRaceKeepsOne) {
    if (g_drv.dev.opens != 0) GTEST_SKIP() << "the device was opened by an earlier test";
    g_drv.fail_open = ENOENT;
    uint32_t native = 0;
    EXPECT_EQ(zfx_ioc_get_native_vsan(10, 1, 2, 3, &native), ZFX_ERR_ERRNO(ENOENT));
    EXPECT_EQ(native, 10u);
    EXPECT_EQ(g_drv.seen().size(), 0u);

    // Descriptor 0 is a descriptor like any other (a daemon's standard input is often closed):
    // the first of the racing opens gets it.
    close(0);
    g_drv.gate = 2;
    g_drv.answer = 77;
    uint32_t out[2] = {};
    std::thread a([&] { zfx_ioc_get_native_vsan(1, 0, 0, 0, &out[0]); });
    std::thread b([&] { zfx_ioc_get_next_hop_vsan(1, 0x0000EF00u, &out[1]); });
    a.join();
    b.join();
    g_drv.gate = 0;
    EXPECT_EQ(std::pair(out[0], out[1]), std::pair(77u, 77u));
    EXPECT_EQ(std::pair(g_drv.dev.opens, g_drv.dev.last_flags), std::pair(3, int(O_RDONLY)));
    // One descriptor kept, the other closed, and both calls made on the one kept.
    ASSERT_EQ(std::pair(g_drv.dev.fds.size(), g_drv.dev.closed.size()), std::pair(size_t(1), size_t(1)));
    const int kept = *g_drv.dev.fds.begin();
    ASSERT_EQ(g_drv.seen().size(), 2u);
    EXPECT_EQ(std::pair(g_drv.calls[0].fd, g_drv.calls[1].fd), std::pair(kept, kept));

    zfx_ioc_get_native_vsan(1, 0, 0, 0, &out[0]);
    EXPECT_EQ(g_drv.dev.opens, 3) << "never opened again";
}

// Family A interfaces ask the driver for the next hop, the others for the native VSAN; the flow
// crosses VSANs when the answer is another VSAN. The control blocks byte for byte; a destination
// in domain 239 is still asked.
TEST(ForwardingDevice, InterVsanFlowByInterfaceFamilyAndRefusals) {
    tcam_table_clear();
    tcam_interface_set(1, 1, 0);
    tcam_interface_set(2, 0, 0);
    tcam_interface_set(3, 0, 0x1234);  // the interface table's own failure comes back as it is
    const Bytes native = cat({le32(10), le32(0x010203), le32(0x04EF06), le16(7), zeros(6)});
    const Bytes next_hop = cat({le32(10), le32(0x04EF06), le32(0xFF00), le32(0), le32(0xFFFFFF00u), zeros(16)});
    // The interface, the driver's answer and its failure; the result, the flag, and the control call
    // made (0: none).
    const std::tuple<uint32_t, uint32_t, int, int32_t, uint32_t, unsigned long> cases[] = {
        {1, 10, 0, 0, 0, 0x4624}, {1, 20, 0, 0, 1, 0x4624},       {2, 10, 0, 0, 0, 0x4625},
        {2, 20, 0, 0, 1, 0x4625}, {2, 20, EIO, ZFX_ERR_ERRNO(EIO), 0, 0x4625}, {3, 20, 0, 0x1234, 0, 0},
        {4, 20, 0, TCAM_ERR_NO_INTERFACE, 0, 0},
    };
    for (const auto &[ifindex, answer, fail, result, crosses, request] : cases) {
        g_drv.answer = answer;
        g_drv.fail_ioctl = fail;
        const size_t before = g_drv.seen().size();
        uint32_t flag = 9;
        EXPECT_EQ(zfx_is_zfx_flow(10, 0x010203, 0x04EF06, ifindex, 7, &flag), result) << ifindex;
        EXPECT_EQ(flag, crosses) << ifindex << " " << answer;
        ASSERT_EQ(g_drv.seen().size() - before, request != 0 ? 1u : 0u);
        if (request == 0) continue;
        EXPECT_EQ(g_drv.seen().back().request, request);
        EXPECT_EQ(g_drv.seen().back().arg, request == 0x4625 ? native : next_hop);
    }
    tcam_table_clear();

    // Domain above 239, or nowhere to answer: no control call, out untouched. A failed call
    // leaves the next hop alone and the native VSAN at the flow's own.
    g_drv.fail_ioctl = 0;
    const size_t before = g_drv.seen().size();
    uint32_t v = 5;
    EXPECT_EQ(zfx_ioc_get_next_hop_vsan(1, 0x0000F000, &v), ZFX_ERR_INVALID_VALUE);
    EXPECT_EQ(zfx_ioc_get_next_hop_vsan(1, 0x0000EF00, nullptr), ZFX_ERR_INVALID_ARG);
    EXPECT_EQ(zfx_ioc_get_native_vsan(1, 0, 0, 0, nullptr), ZFX_ERR_INVALID_ARG);
    EXPECT_EQ(zfx_is_zfx_flow(10, 0, 0, 1, 0, nullptr), ZFX_ERR_INVALID_VALUE);
    EXPECT_EQ(g_drv.seen().size(), before);
    g_drv.fail_ioctl = EIO;
    EXPECT_EQ(zfx_ioc_get_next_hop_vsan(12, 0, &v), ZFX_ERR_ERRNO(EIO));
    EXPECT_EQ(v, 5u);
    EXPECT_EQ(zfx_ioc_get_native_vsan(12, 0, 0, 0, &v), ZFX_ERR_ERRNO(EIO));
    EXPECT_EQ(v, 12u);
    g_drv.fail_ioctl = 0;
}

TEST(Routing, NextHopAndNatRequests) {
    // The service's next hop: its answer, or the asked VSAN whenever it has none.
    for (const auto &[answer, expected] : {std::pair{Answer::reply_with(be32(30)), 30u}, {Answer::failure(EIO), 10u},
                                           {Answer::status(3), 10u}, {Answer::reply_with({0, 0, 0}), 10u}}) {
        FakeService svc;
        svc.answer(answer);
        uint32_t v = 0;
        EXPECT_EQ(zfx_get_next_hop_vsan(svc.ep(), 10, 0x00040506, &v), 0);
        EXPECT_EQ(v, expected);
        EXPECT_EQ(svc.last().summary(), "remote 8620/2 @fe000001 t1 reply a=ZFX");
        EXPECT_EQ(svc.last().payload, cat({be32(10), le32(0x00040506)}));
    }
    // NAT: asked only when the driver's next hop is another VSAN no higher than 4096; the flow
    // changes only with a whole reply. The driver's answer and failure, the service's, whether it
    // is asked, and the flow after (VSAN, source, destination).
    const Bytes unchanged = cat({le32(10), le32(0x010203), le32(0x040506)});
    const std::tuple<uint32_t, int, Answer, bool, Bytes> nat[] = {
        {4096, 0, Answer::reply_with(cat({le32(1), le32(2)})), true, cat({le32(4096), le32(1), le32(2)})},
        {20, 0, Answer::reply_with(zeros(7)), true, unchanged}, {20, 0, Answer::failure(EIO), true, unchanged},
        {10, 0, Answer::none(), false, unchanged},              {4097, 0, Answer::none(), false, unchanged},
        {20, EIO, Answer::none(), false, unchanged},
    };
    for (const auto &[driver, fail, answer, asked, after] : nat) {
        g_drv.answer = driver;
        g_drv.fail_ioctl = fail;
        FakeService svc;
        svc.answer(answer);
        uint32_t flow[3] = {10, 0x010203, 0x040506};
        EXPECT_EQ(zfx_nat_get_next_hop_info(svc.ep(), &flow[0], &flow[1], &flow[2]), 0);
        EXPECT_EQ(bytes_of(flow, 12), after) << driver;
        ASSERT_EQ(svc.sent().size(), asked ? 1u : 0u) << driver;
        if (!asked) continue;
        EXPECT_EQ(svc.last().summary(), "remote 8641/2 @fe000001 t1 reply a=ZFX");
        EXPECT_EQ(svc.last().payload, cat({be32(10), be32(driver), le32(0x010203), le32(0x040506)}));
    }
    g_drv.fail_ioctl = 0;
    FakeService svc;
    uint32_t flow[3] = {10, 1, 2};
    EXPECT_EQ(zfx_get_next_hop_vsan(svc.ep(), 1, 2, nullptr), ZFX_ERR_INVALID_ARG);
    for (int missing = 0; missing < 3; ++missing)
        EXPECT_EQ(zfx_nat_get_next_hop_info(svc.ep(), missing == 0 ? nullptr : &flow[0], missing == 1 ? nullptr : &flow[1],
                                            missing == 2 ? nullptr : &flow[2]),
                  ZFX_ERR_INVALID_ARG);
    EXPECT_TRUE(svc.sent().empty());
}

// The hash against its definition over seeded flows, every path count from none to 255 included.
TEST(Routing, HashZoneNamesAndVsanWwn) {
    std::mt19937 rnd(7);
    for (uint32_t i = 0; i < 512; ++i) {
        const uint32_t vsan = i == 0 ? 0xFFFFFFFFu : rnd(), sid = rnd(), did = rnd(), npaths = i % 256;
        uint8_t path = 0xAA;
        EXPECT_EQ(zfx2_software_load_balancing_vsan_sid_did_hash(vsan, sid, did, rnd(), rnd(), rnd(), uint8_t(npaths), &path), 0);
        EXPECT_EQ(path, npaths != 0 ? (vsan ^ sid ^ did) % npaths : 0u) << npaths;
    }
    EXPECT_EQ(zfx2_software_load_balancing_vsan_sid_did_hash(1, 2, 3, 0, 0, 0, 4, nullptr), ZFX_ERR_INVALID_ARG);
    for (const auto &[name, yes] : {std::pair{"ZFXZ_abc", 1}, {"ZFXZ_", 1}, {"ZFXZ", 0}, {"zfxz_abc", 0}, {"", 0}, {"ZFX_Z", 0}})
        EXPECT_EQ(zfx_is_zfx_zone(name), yes) << name;
    EXPECT_EQ(zfx_is_zfx_zone(nullptr), 0);

    // The VSAN WWN of a switch: found, not found, VSAN out of range, no kind or nowhere to write.
    // The kind, the VSAN, whether there is somewhere to write; the result and the WWN written.
    const uint8_t sw[8] = {0x20, 0, 0, 0x11, 0x22, 0x33, 0x44, 0x55}, vw[8] = {0x21, 1, 2, 3, 4, 5, 6, 7};
    wwnsvc_table_clear();
    wwnsvc_table_set(sw, 4095, vw);
    const std::tuple<uint32_t, uint32_t, bool, int32_t, Bytes> cases[] = {
        {1, 4095, true, 0, bytes_of(vw, 8)},         {1, 12, true, WWNSVC_ERR_NOT_FOUND, zeros(8)},
        {1, 4096, true, ZFX_ERR_INVALID_VALUE, zeros(8)}, {0, 4095, true, ZFX_ERR_INVALID_ARG, Bytes(8, 0xCC)},
        {1, 4095, false, ZFX_ERR_INVALID_ARG, Bytes(8, 0xCC)},
    };
    for (const auto &[kind, vsan, out, result, want] : cases) {
        Bytes wwn(9, 0xCC);  // the byte after the WWN stays as it was
        EXPECT_EQ(zfx_get_vsan_wwn_from_switch_wwn(sw, kind, vsan, out ? wwn.data() : nullptr), result);
        EXPECT_EQ(wwn, cat({want, {0xCC}})) << vsan;
    }
    wwnsvc_table_clear();
}

}  // namespace
