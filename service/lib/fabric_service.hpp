// zfxd's answers from the fabric: the raw transport queries (native domain, proxy domains, frame
// hand-over), the name server's entry of a port, the next-hop and NAT requests, and the device
// entries in batches, per VSAN and TLV-encoded. The layouts are zfxd_protocol.h's.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "fabric_file.hpp"

namespace zfxd {

struct Answer;

class FabricService {
public:
    explicit FabricService(const FabricDesc &fabric) : fabric_(fabric) {}

    // Whether a channel message type is one of the fabric's.
    static bool serves(uint32_t msg_type);
    // A channel request of the fabric's message types; what (for the log) says what it asked.
    Answer request(uint32_t msg_type, uint32_t opcode, const uint8_t *p, uint32_t n, std::string &what);
    // A raw transport message to access point sap.
    Answer raw(uint32_t sap, uint32_t opcode, const uint8_t *p, uint32_t n, std::string &what);
    // The fabric's info keys (ZFXD_INFO_DEVICES, _FRAMES, _LAST_FRAME); nothing for any other key.
    std::optional<std::string> info(uint32_t key) const;

private:
    const FabricDesc &fabric_;
    uint32_t frames_ = 0;
    std::string last_frame_;
};

}  // namespace zfxd
