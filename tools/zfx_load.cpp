// zfx-load: puts zfxd under load. C clients, each a thread with its own socket endpoint, send R
// changes each through libzfx's request functions, with queries between them, and the figures
// come out at the end: requests, requests per second, latency percentiles. Each client works on
// objects of its own (zones TAGc<client>-z<n>, zonesets TAGc<client>-s<n>), so the database the
// service should hold at the end is exactly the one the acknowledged changes make, client by
// client; --log writes every change with its outcome for whoever checks that. Only client 0
// activates: the active zoneset is one for the whole fabric, and one client's order of
// activations is the only order that is known.
#include <algorithm>
#include <cctype>
#include <chrono>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "cli.hpp"
#include "fabric.hpp"
#include "zfx_common.h"
#include "zfx_zone_msg.h"
#include "zfxd_client.hpp"
#include "zfxd_protocol.h"

using namespace zfxtool;

namespace {

const char kUsage[] = "usage: zfx-load [--socket PATH] [--clients C] [--requests R] [--queries-every Q] [--seed S] [--tag TAG] [--log FILE]\n";
const char kHelp[] =
    "\n"
    "Puts the feature's service, zfxd, under load: C clients (threads, each with its own\n"
    "connection) each send R changes (zone creates with and without attributes, member adds and\n"
    "removes, QoS changes, zoneset creates, zones added to zonesets two at a time in one change,\n"
    "and, by client 0 only, activations) and a zone query after every Q changes. Each client\n"
    "works on its own objects, zones TAGc<client>-z<n> and zonesets TAGc<client>-s<n>, so that\n"
    "what the service holds afterwards is exactly what the acknowledged changes make. A query\n"
    "answers the zone as the client's acknowledged changes left it, or counts as a mismatch.\n"
    "A client whose request goes unanswered (the service went away) stops there.\n"
    "\n"
    "options:\n"
    "  --socket PATH      zfxd's socket (default: $" ZFXD_SOCKET_ENV ", else " ZFXD_SOCKET_DEFAULT ")\n"
    "  --clients C        concurrent clients, 1 to 64 (default 8)\n"
    "  --requests R       changes per client, 1 to 1000000 (default 500)\n"
    "  --queries-every Q  a query after every Q changes, 0 for none (default 4)\n"
    "  --seed S           the same seed sends the same changes (default 1)\n"
    "  --tag TAG          put before every object's name, to keep runs on one store apart\n"
    "                     (letters and digits, at most 16; default none)\n"
    "  --log FILE         write every change, one a line, client by client in the order sent:\n"
    "                       CLIENT SEQ ok|refused|unanswered CHANGE...\n"
    "                     where CHANGE is one of\n"
    "                       zone-create ZONE QOS ro|rw     member-add ZONE WWN VSAN\n"
    "                       member-remove ZONE WWN VSAN    zone-qos ZONE QOS\n"
    "                       zoneset-create SET             zoneset-add SET ZONE [ZONE]\n"
    "                       activate SET\n"
    "                     (QOS a word of the configuration text, none for none)\n"
    "\n"
    "It prints the requests (changes and queries), requests per second, and the 50th and 99th\n"
    "percentile of their latency.\n"
    "\n"
    "exit status: 0 every change acknowledged and every query as expected, 1 a change refused or\n"
    "unanswered, a query that did not match, a client that could not connect or the log that\n"
    "could not be written, 2 bad command line\n";

struct Options {
    std::string socket;
    uint64_t clients = 8, requests = 500, queries_every = 4, seed = 1;
    std::string tag, log;
};

// A client's own objects as its acknowledged changes left them.
struct Member {
    Wwn pwwn;
    uint32_t vsan;
};
struct Zone {
    std::string name;
    uint32_t qos = ZFX_ZONE_QOS_NONE;
    bool read_only = false;
    std::vector<Member> members;
};
struct Zoneset {
    std::string name;
    std::vector<size_t> zones;  // indexes into the client's zones
};

struct Client {
    uint32_t index = 0;
    std::string prefix;  // TAGc<index>-
    std::mt19937_64 rng;
    std::vector<Zone> zones;
    std::vector<Zoneset> sets;
    uint32_t next_wwn = 0;
    std::vector<std::string> log;
    std::vector<double> latency_us;  // of every request
    uint64_t acked = 0, refused = 0, unanswered = 0, queries = 0, mismatches = 0;
    std::string failure;  // why it stopped early
    bool stopped = false;

    size_t pick(size_t n) { return size_t(rng() % n); }
};

// Sends one request through send, records how long its answer took, and returns its result.
template <typename Send>
uint32_t timed(Client &c, Send send) {
    const auto t0 = std::chrono::steady_clock::now();
    const uint32_t r = send();
    c.latency_us.push_back(std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - t0).count());
    return r;
}

// Records a change's outcome; true when it was acknowledged, so that the caller applies it to
// the client's objects. One left unanswered (the connection is gone, or no answer came in time)
// may or may not have been made: the client stops there, since what it owns is no longer known.
bool outcome(Client &c, uint32_t r, const std::string &change) {
    const char *word = "ok";
    if (r == 0) {
        ++c.acked;
    } else if (int32_t(r) == -1 || (r & 0xFFFFF000u) == uint32_t(ZFX_ERR_ERRNO_BASE)) {
        // The channel failed (the activation request reports it as an errno status): no answer.
        word = "unanswered";
        ++c.unanswered;
        c.stopped = true;
        c.failure = "no answer to " + change + ": " + std::strerror(int32_t(r) == -1 ? errno : int(r & 0xFFF));
    } else {
        word = "refused";
        ++c.refused;
        char status[16];
        std::snprintf(status, sizeof status, "0x%08x", unsigned(r));
        if (c.failure.empty()) c.failure = change + " refused: status " + status;
    }
    c.log.push_back(c.prefix.substr(0, c.prefix.size() - 1) + " " + std::to_string(c.log.size() + 1) + " " + word + " " + change);
    return r == 0;
}

std::string qos_name(uint32_t qos) { return qos == ZFX_ZONE_QOS_NONE ? "none" : qos_word(qos); }

// ---- the changes ------------------------------------------------------------------------------

void zone_create(Client &c, plat_endpoint *ep) {
    Zone z;
    z.name = c.prefix + "z" + std::to_string(c.zones.size() + 1);
    // Half of them carry attributes, which the zone record takes in the same change.
    const bool attrs = c.pick(2) == 0;
    if (attrs) {
        z.qos = uint32_t(c.pick(4));
        z.read_only = c.pick(2) == 0;
    }
    const uint32_t r = timed(c, [&] {
        return attrs ? zfx_dlg_config_zone_all_attrib(ep, ZFXD_OP_CREATE, z.name.c_str(), nullptr, 0, z.qos, z.read_only ? 1 : ZFX_ATTR_NONE, nullptr, 0)
                     : zfx_dlg_config_zone(ep, ZFXD_OP_CREATE, z.name.c_str(), nullptr, nullptr, 0);
    });
    if (outcome(c, r, "zone-create " + z.name + " " + qos_name(z.qos) + (z.read_only ? " ro" : " rw"))) c.zones.push_back(z);
}

void member_change(Client &c, plat_endpoint *ep, Zone &z, bool add) {
    Member m{};
    size_t at = 0;
    if (add) {
        const uint32_t n = c.next_wwn++;
        m.pwwn = Wwn{0x20, 0x00, uint8_t(c.index), uint8_t(n >> 24), uint8_t(n >> 16), uint8_t(n >> 8), uint8_t(n), 0x01};
        m.vsan = 1 + n % 4000;
    } else {
        at = c.pick(z.members.size());
        m = z.members[at];
    }
    const uint32_t r = timed(c, [&] {
        return zfx_dlg_config_zone_member(ep, add ? ZFXD_OP_CREATE : ZFXD_OP_REMOVE, z.name.c_str(), 0, 0, ZFX_MEMBER_PWWN, m.pwwn.data(), nullptr,
                                          m.vsan, 1, nullptr, 0);
    });
    if (!outcome(c, r, std::string(add ? "member-add " : "member-remove ") + z.name + " " + wwn_text(m.pwwn) + " " + std::to_string(m.vsan))) return;
    if (add)
        z.members.push_back(m);
    else
        z.members.erase(z.members.begin() + long(at));
}

void zone_qos(Client &c, plat_endpoint *ep) {
    Zone &z = c.zones[c.pick(c.zones.size())];
    const uint32_t qos = uint32_t(c.pick(4));
    const uint32_t r = timed(c, [&] { return zfx_dlg_config_zone_attrib(ep, ZFXD_OP_MODIFY, z.name.c_str(), nullptr, 0, qos, ZFX_ATTR_NONE, nullptr, 0); });
    if (outcome(c, r, "zone-qos " + z.name + " " + qos_name(qos))) z.qos = qos;
}

void zoneset_create(Client &c, plat_endpoint *ep) {
    Zoneset s{c.prefix + "s" + std::to_string(c.sets.size() + 1), {}};
    const uint32_t r = timed(c, [&] { return zfx_dlg_config_zoneset(ep, ZFXD_OP_CREATE, s.name.c_str(), nullptr, nullptr, nullptr, 0); });
    if (outcome(c, r, "zoneset-create " + s.name)) c.sets.push_back(s);
}

// The id of a zone, from a zone query; 0 when the query failed (the client then stops when the
// service went away).
uint32_t zone_id(Client &c, Connection &conn, const Zone &z);

// Adds zones to a zoneset: two at once as a bitmap of their ids, one change that the service
// makes in one transaction, so that a reader sees both or neither; one by name when only one
// is left to add. False when every zone is in the zoneset already: nothing was sent.
bool zoneset_add(Client &c, Connection &conn) {
    Zoneset &s = c.sets[c.pick(c.sets.size())];
    std::vector<size_t> out;
    for (size_t i = 0; i < c.zones.size(); ++i)
        if (std::find(s.zones.begin(), s.zones.end(), i) == s.zones.end()) out.push_back(i);
    if (out.empty()) return false;
    std::shuffle(out.begin(), out.end(), c.rng);
    out.resize(std::min<size_t>(out.size(), 2));
    std::string change = "zoneset-add " + s.name;
    for (size_t i : out) change += " " + c.zones[i].name;
    uint32_t r;
    if (out.size() == 1) {
        r = timed(c, [&] { return zfx_dlg_config_zoneset(conn.ep(), ZFXD_OP_ADD, s.name.c_str(), nullptr, c.zones[out[0]].name.c_str(), nullptr, 0); });
    } else {
        uint8_t bitmap[ZFX_ZONESET_ZONES_SIZE] = {};
        const uint32_t bytes = ZFX_ZONESET_ZONES_SIZE - 4;  // the byte count, host order
        std::memcpy(bitmap, &bytes, 4);
        for (size_t i : out) {
            const uint32_t id = zone_id(c, conn, c.zones[i]);
            if (id == 0) return true;
            set_id_bit(bitmap + 4, id);
        }
        r = timed(c, [&] { return zfx_dlg_config_zoneset_all_attrib(conn.ep(), ZFXD_OP_ADD, s.name.c_str(), nullptr, 0, nullptr, bitmap, nullptr, 0); });
    }
    if (outcome(c, r, change)) s.zones.insert(s.zones.end(), out.begin(), out.end());
    return true;
}

// Activates one of the client's zonesets that has zones (an empty one is refused).
void activate(Client &c, plat_endpoint *ep) {
    std::vector<const Zoneset *> filled;
    for (const Zoneset &s : c.sets)
        if (!s.zones.empty()) filled.push_back(&s);
    const Zoneset &s = *filled[c.pick(filled.size())];
    const uint32_t r = timed(c, [&] { return zfx_dlg_config_zone_activation(ep, ZFXD_OP_ACTIVATE, s.name.c_str(), ZFXD_ACTIVATE_FORCE, 0, nullptr, 0); });
    outcome(c, r, "activate " + s.name);
}

// ---- the queries ------------------------------------------------------------------------------

struct Free {
    void operator()(void *p) const { std::free(p); }
};

// Asks for a zone by name and checks it against what the client's changes made of it.
bool query_zone(Client &c, Connection &conn, const Zone &z, uint32_t *id) {
    zfx_zone_msg *reply = nullptr;
    const uint32_t r = timed(c, [&] { return zfx_dlg_get_zone(conn.measured(), ZFXD_OP_GET, z.name.c_str(), 0, &reply, 1, 0); });
    const std::unique_ptr<zfx_zone_msg, Free> owned(reply);
    ++c.queries;
    if (int32_t(r) == -1) {
        c.stopped = true;
        c.failure = "no answer to the query of " + z.name + ": " + std::strerror(errno);
        return false;
    }
    std::vector<ZoneEntry> list;
    std::string why = r != 0 ? "status " + std::to_string(r) : reply == nullptr ? "no reply" : decode_zones(reply, conn.reply_length(), list);
    if (why.empty() && list.size() != 1) why = std::to_string(list.size()) + " entries";
    if (why.empty()) {
        const ZoneEntry &e = list[0];
        const size_t members = e.member_ids ? e.member_ids->size() : 0;
        if (e.name != z.name || e.qos != z.qos || e.read_only != z.read_only || members != z.members.size())
            why = "it answers qos " + qos_name(e.qos) + (e.read_only ? " ro " : " rw ") + std::to_string(members) + " members, not qos " + qos_name(z.qos) +
                  (z.read_only ? " ro " : " rw ") + std::to_string(z.members.size());
        if (id != nullptr) *id = e.id;
    }
    if (why.empty()) return true;
    ++c.mismatches;
    if (c.failure.empty()) c.failure = "the query of " + z.name + ": " + why;
    return false;
}

uint32_t zone_id(Client &c, Connection &conn, const Zone &z) {
    uint32_t id = 0;
    return query_zone(c, conn, z, &id) ? id : 0;
}

// ---- a client ---------------------------------------------------------------------------------

void run_client(Client &c, const Options &o) {
    const std::unique_ptr<Connection> conn = Connection::open_socket(o.socket.c_str());
    if (!conn) {
        c.failure = "cannot connect to zfxd at " + o.socket + ": " + std::strerror(errno);
        c.stopped = true;
        return;
    }
    for (uint64_t n = 0; n < o.requests && !c.stopped; ++n) {
        // What can be done depends on what there is: a zone first, members before removes, a
        // zoneset before adding to one, zones in it before activating it.
        const size_t roll = c.pick(100);
        const bool members = std::any_of(c.zones.begin(), c.zones.end(), [](const Zone &z) { return !z.members.empty(); });
        const bool filled = std::any_of(c.sets.begin(), c.sets.end(), [](const Zoneset &s) { return !s.zones.empty(); });
        if (c.zones.empty() || roll < 12) {
            zone_create(c, conn->ep());
        } else if (roll < 45) {
            member_change(c, conn->ep(), c.zones[c.pick(c.zones.size())], true);
        } else if (roll < 62 && members) {
            std::vector<Zone *> with;
            for (Zone &z : c.zones)
                if (!z.members.empty()) with.push_back(&z);
            member_change(c, conn->ep(), *with[c.pick(with.size())], false);
        } else if (roll < 72) {
            zone_qos(c, conn->ep());
        } else if (roll < 76 || c.sets.empty()) {
            zoneset_create(c, conn->ep());
        } else if (roll < 92 || c.index != 0 || !filled) {
            if (!zoneset_add(c, *conn)) zone_create(c, conn->ep());
        } else {
            activate(c, conn->ep());
        }
        if (o.queries_every != 0 && (n + 1) % o.queries_every == 0 && !c.stopped && !c.zones.empty())
            query_zone(c, *conn, c.zones[c.pick(c.zones.size())], nullptr);
    }
}

double percentile(std::vector<double> &v, double p) {
    if (v.empty()) return 0;
    const size_t at = std::min(v.size() - 1, size_t(p / 100.0 * double(v.size())));
    std::nth_element(v.begin(), v.begin() + long(at), v.end());
    return v[at];
}

int usage(const std::string &what) {
    std::fprintf(stderr, "zfx-load: %s\n%sTry 'zfx-load --help'.\n", what.c_str(), kUsage);
    return kExitUsage;
}

}  // namespace

int main(int argc, char **argv) {
    Options o;
    Args args(argc, argv, 1);
    std::string error;
    while (!args.done()) {
        const std::string a = args.take();
        bool ok = true;
        if (a == "--help" || a == "-h") {
            std::printf("%s%s", kUsage, kHelp);
            return kExitOk;
        } else if (a == "--socket") {
            ok = args.value(a, o.socket, error);
            if (ok && o.socket.empty()) ok = false, error = "--socket needs a path";
        } else if (a == "--clients") {
            ok = args.number(a, 64, o.clients, error, 1);
        } else if (a == "--requests") {
            ok = args.number(a, 1000000, o.requests, error, 1);
        } else if (a == "--queries-every") {
            ok = args.number(a, 1000000, o.queries_every, error);
        } else if (a == "--seed") {
            ok = args.number(a, UINT64_MAX, o.seed, error);
        } else if (a == "--tag") {
            ok = args.value(a, o.tag, error);
            // The tag goes into names, before the client's part that the checker splits off at "-".
            if (ok && (o.tag.size() > 16 || !std::all_of(o.tag.begin(), o.tag.end(), [](char ch) { return std::isalnum((unsigned char)ch) != 0; })))
                ok = false, error = "--tag takes at most 16 letters and digits";
        } else if (a == "--log") {
            ok = args.value(a, o.log, error);
        } else {
            return usage("unknown argument '" + a + "'");
        }
        if (!ok) return usage(error);
    }
    if (o.socket.empty()) {
        const char *env = std::getenv(ZFXD_SOCKET_ENV);
        o.socket = env != nullptr && *env != '\0' ? env : ZFXD_SOCKET_DEFAULT;
    }

    std::vector<Client> clients(o.clients);
    for (uint32_t i = 0; i < clients.size(); ++i) {
        clients[i].index = i;
        clients[i].prefix = o.tag + "c" + std::to_string(i) + "-";
        clients[i].rng.seed(o.seed * 1000003u + i);
    }
    const auto t0 = std::chrono::steady_clock::now();
    {
        std::vector<std::jthread> threads;
        for (Client &c : clients) threads.emplace_back([&c, &o] { run_client(c, o); });
    }
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();

    std::vector<double> latency;
    uint64_t acked = 0, refused = 0, unanswered = 0, queries = 0, mismatches = 0;
    for (const Client &c : clients) {
        latency.insert(latency.end(), c.latency_us.begin(), c.latency_us.end());
        acked += c.acked, refused += c.refused, unanswered += c.unanswered, queries += c.queries, mismatches += c.mismatches;
        if (!c.failure.empty()) std::fprintf(stderr, "zfx-load: client %u: %s\n", c.index, c.failure.c_str());
    }
    int status = refused + unanswered + mismatches == 0 && std::none_of(clients.begin(), clients.end(), [](const Client &c) { return c.stopped; })
                     ? kExitOk
                     : kExitFailure;
    if (!o.log.empty()) {
        FILE *f = std::fopen(o.log.c_str(), "w");
        bool written = f != nullptr;
        for (const Client &c : clients)
            for (const std::string &line : c.log) written = written && std::fprintf(f, "%s\n", line.c_str()) > 0;
        if (f != nullptr && std::fclose(f) != 0) written = false;
        if (!written) {
            std::fprintf(stderr, "zfx-load: cannot write %s: %s\n", o.log.c_str(), std::strerror(errno));
            status = kExitFailure;
        }
    }
    const size_t requests = latency.size();
    std::printf("clients %" PRIu64 ", changes %" PRIu64 " acknowledged, %" PRIu64 " refused, %" PRIu64 " unanswered; queries %" PRIu64 ", %" PRIu64 " mismatched\n",
                o.clients, acked, refused, unanswered, queries, mismatches);
    std::printf("requests %zu in %.3f s: %.0f per second\n", requests, seconds, seconds > 0 ? double(requests) / seconds : 0.0);
    std::printf("latency p50 %.3f ms, p99 %.3f ms\n", percentile(latency, 50) / 1000, percentile(latency, 99) / 1000);
    return status;
}
