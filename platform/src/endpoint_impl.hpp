// What the platform's own layers (the channel and the raw message transport) need of an endpoint
// beyond its public interface. Not exported.
#pragma once

#include "platform/endpoint.h"

namespace plat {

// Carries one operation through the endpoint's transport. Sends that expect a later reply
// (PLAT_OP_SEND_REQUEST, PLAT_OP_RAW_SEND) get a fresh reply token in call.token first, and an
// answer with reply bytes and result 0 is queued on the endpoint as the reply message. When the
// answer's result is -1, errno is set to its err. Returns the answer's result.
int32_t endpoint_call(plat_endpoint *ep, plat_call &call, plat_answer &answer);

// plat_endpoint_recv with the longest wait the receiver allows (seconds, 0 = the transport's
// default), which the transport sees in the receive's call.timeout.
int32_t endpoint_recv(plat_endpoint *ep, uint32_t token, uint32_t wait, plat_msg **out);

// Gives a message that this layer built the reply token of the send it records.
void msg_set_token(plat_msg *msg, uint32_t token);

// Whether a receive for token (0: any message) would find a message queued now. A transport
// that can wait for the far side (the socket transport) asks this to know when to stop waiting.
bool endpoint_has_message(const plat_endpoint *ep, uint32_t token);

}  // namespace plat
