// Round trips to zfxd: a status query and a member change (with its store transaction, on LMDB)
// over the Unix-domain socket, beside the same requests answered in-process by the same handlers,
// and the in-process transport's own floor (a handler that answers at once).
#include <benchmark/benchmark.h>

#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <memory>

#include "platform/socket.h"
#include "server.hpp"
#include "zfx_service.h"
#include "zfx_zone_msg.h"
#include "zfxd_protocol.h"

namespace {

// zfxd serving an LMDB store in a temporary directory, on a thread of the benchmark.
class Running {
public:
    Running() {
        char tmpl[] = "/tmp/zfxd-bench-XXXXXX";
        dir_ = mkdtemp(tmpl);
        if (!db_.open(dir_ + "/zfx_startup_config").empty()) std::abort();
        server_ = std::make_unique<zfxd::ServerThread>(service_, dir_ + "/zfxd.sock");
        if (!server_->error().empty()) std::abort();
        plat_endpoint *ep = open();
        zfx_dlg_config_zone(ep, ZFXD_OP_CREATE, "bench", nullptr, nullptr, 0);
        plat_endpoint_close(ep);
    }
    ~Running() {
        server_.reset();
        std::filesystem::remove_all(dir_);
    }
    plat_endpoint *open() const { return plat_endpoint_open_socket((dir_ + "/zfxd.sock").c_str()); }
    zfxd::Service &service() { return service_; }

private:
    std::string dir_;
    zfxd::ZoneDb db_;
    zfxd::Service service_{db_, nullptr};
    std::unique_ptr<zfxd::ServerThread> server_;
};

Running &zfxd_running() {
    static Running r;
    return r;
}

void answer_at_once(void *, const plat_call *, plat_answer *answer) {
    static const uint8_t reply[16] = {0, 0, 0, 1};
    answer->reply = reply;
    answer->reply_length = sizeof reply;
}

enum class Via { floor, handlers, socket };

plat_endpoint *endpoint(Via via) {
    switch (via) {
        case Via::floor: return plat_endpoint_open_inproc(answer_at_once, nullptr);
        case Via::handlers: return zfxd_running().service().open_inproc();
        default: return zfxd_running().open();
    }
}

void BM_StatusQuery(benchmark::State &state) {
    plat_endpoint *ep = endpoint(Via(state.range(0)));
    for (auto _ : state) {
        zfx_status_reply *reply = nullptr;
        if (zfx_is_zfx_enabled(ep, &reply) != 0) state.SkipWithError("status query failed");
        std::free(reply);
    }
    plat_endpoint_close(ep);
}
BENCHMARK(BM_StatusQuery)->Arg(int(Via::floor))->Arg(int(Via::handlers))->Arg(int(Via::socket))->UseRealTime();

// One member added and removed again: two changes, two store transactions, per iteration.
void BM_MemberAddRemove(benchmark::State &state) {
    plat_endpoint *ep = endpoint(Via(state.range(0)));
    const uint8_t wwn[8] = {0x21, 0, 0, 0x24, 0xff, 1, 2, 3};
    for (auto _ : state) {
        if (zfx_dlg_config_zone_member(ep, ZFXD_OP_ADD, "bench", 0, 0, ZFX_MEMBER_PWWN, wwn, nullptr, 1, 0, nullptr, 0) != 0 ||
            zfx_dlg_config_zone_member(ep, ZFXD_OP_REMOVE, "bench", 0, 0, ZFX_MEMBER_PWWN, wwn, nullptr, 1, 0, nullptr, 0) != 0)
            state.SkipWithError("member change refused");
    }
    state.SetItemsProcessed(int64_t(state.iterations()) * 2);
    plat_endpoint_close(ep);
}
BENCHMARK(BM_MemberAddRemove)->Arg(int(Via::handlers))->Arg(int(Via::socket))->UseRealTime();

}  // namespace
