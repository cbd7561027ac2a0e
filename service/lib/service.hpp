// zfxd's request handlers: one request of the library (message type, operation code, payload as
// the library sent it) in, one answer out (a result and, for queries, reply bytes), with the
// zone database changed and written to the store when the request was an accepted change.
// Nothing here knows about sockets, so that tests and fuzzing drive the handlers directly.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>

#include "fabric_file.hpp"
#include "fabric_service.hpp"
#include "platform/endpoint.h"
#include "zone_db.hpp"

namespace zfxd {

// Who sent a request, for the log: the peer credentials of its connection.
struct Peer {
    uint32_t uid = 0;
    int32_t pid = 0;
};

struct Answer {
    int32_t result = 0;      // 0, a status of zfxd_protocol.h, or the library's ZFX_ERR_CREATE_INCOMPLETE
    bool has_reply = false;  // a query's reply (which may be empty) or none
    Bytes reply;
};

// What one frame asks of the service: its operation (PLAT_OP_*), message type, operation code
// and access point, and the payload as the library sent it.
struct Request {
    uint32_t op = 0;
    uint32_t msg_type = 0;
    uint32_t opcode = 0;
    uint32_t sap = 0;
    const uint8_t *payload = nullptr;
    uint32_t length = 0;
};

class Service {
public:
    // log receives one line per change (and per request at log level 2); NULL logs nothing. The
    // routing, raw-message and device requests are answered from fabric (which must outlive the
    // service); without one, from an empty fabric.
    Service(ZoneDb &db, std::FILE *log, const FabricDesc *fabric = nullptr);

    // Any request a frame carries: channel requests to the feature's access point go to handle,
    // raw transport messages to handle_raw; anything else is ZFXD_ERR_UNSUPPORTED.
    Answer dispatch(const Request &request, const Peer &peer);
    // A channel request.
    Answer handle(uint32_t msg_type, uint32_t opcode, const uint8_t *payload, uint32_t length, const Peer &peer);
    // A raw transport message to access point sap (the feature's, or the name server's).
    Answer handle_raw(uint32_t sap, uint32_t opcode, const uint8_t *payload, uint32_t length, const Peer &peer);

    // An endpoint of the platform's in-process transport that this service answers, on the
    // caller's thread, as zfxd answers the same calls over its socket: a program that embeds the
    // service (its suites and benchmarks do) talks to it as a client would. Closed with
    // plat_endpoint_close, before the service goes; NULL when memory is short.
    plat_endpoint *open_inproc();

    // The log's level (ZFXD_INFO_LOG_LEVEL): 0 errors only, 1 changes, 2 every request.
    int log_level() const { return log_level_; }
    // One line on the log, at the given level: "zfxd: " and the text.
    void log(int level, const std::string &text) const;

private:
    ZoneDb &db_;
    std::FILE *log_;
    int log_level_ = 1;
    FabricDesc empty_;
    FabricService fabric_;
    Answer inproc_last_;  // the reply the in-process transport is copying
};

}  // namespace zfxd
