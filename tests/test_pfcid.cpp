// Persistent FCIDs: key checks and first keys, every conversion between stored records, entries
// and keys in both byte orders, the list read from any key on, and the database text, checked
// against the walk over the whole list on a random table.
#include <arpa/inet.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "platform/heapx.h"
#include "store.hpp"
#include "zfx_ascii_cfg.h"
#include "zfx_testing.h"

namespace {

using namespace zfxtest;

Bytes reversed(const Bytes &b, size_t at, size_t n) { return Bytes(b.rbegin() + long(b.size() - at - n), b.rbegin() + long(b.size() - at)); }
uint32_t num(const Bytes &b, size_t at, size_t n) {
    uint32_t v = 0;
    for (size_t i = 0; i < n; ++i) v |= uint32_t(b[at + i]) << (8 * i);
    return v;
}

// The list entry of a record, in network order, laid out from the record's bytes alone.
Bytes entry_of(const Record &r) {
    const Bytes &k = r.first;
    Bytes v = r.second;
    v.resize(8);  // a short value holds only its first bytes
    const Bytes id = k[1] == 1 ? cat({reversed(k, 10, 2), {0, 0}, reversed(k, 14, 4)}) : Bytes(k.begin() + 10, k.end());
    return cat({be32(k[1]), reversed(k, 2, 2), reversed(k, 4, 2), reversed(k, 6, 4), id, Bytes(v.begin(), v.begin() + 4),
                reversed(v, 4, 4)});
}

std::vector<Record> sorted(std::vector<Record> records) {
    std::sort(records.begin(), records.end());  // the store's order: bytewise keys
    return records;
}

// The database text as the walk over the whole list gives it: for each domain record, every FCID
// record of the list that it places.
std::string walk_text(const std::vector<Record> &records) {
    std::string out;
    char line[160];
    uint32_t afid = 0, vsan = 0;
    for (const auto &[k, v] : sorted(records)) {
        if (k[1] != 1) break;
        if (num(k, 4, 2) != afid || num(k, 6, 4) != vsan) {
            afid = num(k, 4, 2), vsan = num(k, 6, 4);
            std::snprintf(line, sizeof line, "zfx fcdomain database autonomous-fabric-num %d vsan %d\n", int(afid), int(vsan));
            out += line;
        }
        std::snprintf(line, sizeof line, "  native-autonomous-fabric-num %d native-vsan %d domain %d\n", int(num(k, 10, 2)),
                      int(num(k, 14, 4)), v[1]);
        out += line;
        for (const auto &[fk, fv] : sorted(records)) {
            if (fk[1] != 2 || num(fk, 4, 2) != afid || num(fk, 6, 4) != vsan || fv[1] != v[1]) continue;
            std::snprintf(line, sizeof line, "    pwwn %02x:%02x:%02x:%02x:%02x:%02x:%02x:%02x fcid 0x%02x%02x%02x\n", fk[10],
                          fk[11], fk[12], fk[13], fk[14], fk[15], fk[16], fk[17], fv[1], fv[2], fv[3]);
            out += line;
        }
    }
    return out;
}

TEST(Pfcid, RecordsEntriesAndKeysConvertBothWaysInBothKinds) {
    const Record records[] = {
        pfcid_domain_rec(0x0102, 0x03040506, 0x0708, 0x090A0B0C, 0x21, 0x0D0E0F10, 0x1112),
        pfcid_fcid_rec(0x0102, 0x03040506, kWwn, {0xF1, 0x20, 0x01, 0x00}, 0x0D0E0F10, 0x1112),
    };
    for (const Record &r : records) {
        const bool domain = r.first[1] == 1;
        const auto to_entry = domain ? zfx2_pfcid_vdom_key_val_2_pfcid_entry : zfx2_pfcid_vfcid_key_val_2_pfcid_entry;
        const auto to_key = domain ? zfx2_pfcid_kvdb_vdom_key_populate : zfx2_pfcid_kvdb_vfcid_key_populate;
        const auto *key = reinterpret_cast<const zfx2_pfcid_key *>(r.first.data());
        const auto *value = reinterpret_cast<const zfx2_pfcid_value *>(r.second.data());
        zfx2_pfcid_entry net, host, e;
        zfx2_pfcid_key k;
        std::memset(&net, 0xEE, sizeof net);
        to_entry(key, value, &net, 1);
        ASSERT_EQ(bytes_of(&net, 28), entry_of(r)) << domain;
        to_entry(key, value, &host, 0);
        EXPECT_EQ(host.word, 0x0D0E0F10u);
        to_key(&net, &k, 1);
        EXPECT_EQ(bytes_of(&k, 18), r.first);
        for (int32_t convert : {0, 2}) {  // only 1 converts
            to_key(&host, &k, convert);
            EXPECT_EQ(bytes_of(&k, 18), r.first);
        }

        zfx2_pfcid_entry_byte_order_convert(&e, &net, 1);
        EXPECT_EQ(bytes_of(&e, 28), bytes_of(&host, 28));
        zfx2_pfcid_entry_byte_order_convert(&e, &e, 0);
        EXPECT_EQ(bytes_of(&e, 28), bytes_of(&net, 28));
        // hton and ntoh leave the value word alone.
        e = host;
        EXPECT_EQ(zfx2_pfcid_entry_hton(&e), 0);
        EXPECT_EQ(bytes_of(&e, 28), cat({bytes_of(&net, 24), bytes_of(&host.word, 4)}));
        EXPECT_EQ(zfx2_pfcid_entry_ntoh(&e), 0);
        EXPECT_EQ(bytes_of(&e, 28), bytes_of(&host, 28));
    }
    // A kind of neither layout converts only the fields every entry has.
    zfx2_pfcid_entry odd{}, before;
    odd.kind = 5;
    odd.vsan = 0x01020304;
    std::memcpy(odd.id.pwwn, kWwn.data(), 8);
    before = odd;
    zfx2_pfcid_entry_hton(&odd);
    EXPECT_EQ(bytes_of(&odd, 12), cat({be32(5), {0, 0, 0, 0}, be32(0x01020304)}));
    EXPECT_EQ(bytes_of(&odd.id, 16), bytes_of(&before.id, 16));

    EXPECT_EQ(zfx2_pfcid_entry_hton(nullptr), ZFX_ERR_INVALID_ARG);
    EXPECT_EQ(zfx2_pfcid_entry_ntoh(nullptr), ZFX_ERR_INVALID_ARG);
    // Any one argument missing: nothing is read or written.
    zfx2_pfcid_key key{};
    zfx2_pfcid_entry_byte_order_convert(nullptr, &odd, 1);
    zfx2_pfcid_entry_byte_order_convert(&odd, nullptr, 1);
    zfx2_pfcid_kvdb_vdom_key_populate(&odd, nullptr, 1);
    zfx2_pfcid_kvdb_vfcid_key_populate(nullptr, &key, 1);
    zfx2_pfcid_vfcid_key_val_2_pfcid_entry(nullptr, nullptr, &odd, 1);
    zfx2_pfcid_vdom_key_val_2_pfcid_entry(&key, nullptr, &odd, 1);
    EXPECT_EQ(bytes_of(&key, sizeof key), zeros(sizeof key));
    EXPECT_EQ(bytes_of(&odd.id, 16), bytes_of(&before.id, 16));
}

TEST(Pfcid, ListReadsFromAnyKeyOnPassingOverAnExactStart) {
    const std::vector<Record> records = sorted({
        pfcid_domain_rec(1, 10, 2, 20, 0x20), pfcid_domain_rec(1, 11, 2, 21, 0x21),
        pfcid_fcid_rec(1, 10, kWwn, {0, 0x20, 1, 0}, 7), pfcid_fcid_rec(2, 10, kWwn, {0, 0x20, 2, 0}),
        {cat({{0x74, 2, 1, 0, 3, 0}, le32(10), kWwn}), {0, 0x20}},  // a short value: the bytes it holds
    });
    Stored r(records);
    // The entries of a list, its size and its zero tail checked.
    auto list = [&](const zfx2_pfcid_entry *start, int32_t count, uint32_t expected_size) {
        zfx2_pfcid_list *l = nullptr;
        uint32_t size = 0;
        std::vector<Bytes> seen;
        EXPECT_EQ(zfx2_pfcid_get_next(r.get(), start, count, &l, &size), 0);
        EXPECT_EQ(size, expected_size);
        if (l == nullptr) return seen;
        for (uint32_t i = 0; i < ntohl(l->count); ++i) seen.push_back(bytes_of(&l->entries[i], 28));
        const Bytes whole = bytes_of(l, size);
        EXPECT_EQ(num(whole, 4, 4), 0u);
        EXPECT_EQ(Bytes(whole.begin() + 8 + 28 * long(seen.size()), whole.end()), zeros(size - 8 - 28 * seen.size()));
        heapx_free(l);
        return seen;
    };
    std::vector<Bytes> all;
    for (const Record &rec : records) all.push_back(entry_of(rec));
    EXPECT_EQ(list(nullptr, 0, 8), std::vector<Bytes>{});
    EXPECT_EQ(list(nullptr, 3, 92), std::vector<Bytes>(all.begin(), all.begin() + 3));
    EXPECT_EQ(list(nullptr, -1, 8 + 5 * 28), all);
    // Handing back the last entry held resumes after it, one entry at a time.
    std::vector<Bytes> resumed, one;
    zfx2_pfcid_entry at;
    for (const zfx2_pfcid_entry *start = nullptr; resumed.size() <= all.size(); start = &at) {
        if ((one = list(start, 1, 36)).empty()) break;
        resumed.push_back(one[0]);
        std::memcpy(&at, one[0].data(), 28);
    }
    EXPECT_EQ(resumed, all);
    // A start that is not stored begins at the key after it.
    std::memcpy(&at, all[0].data(), 28);
    at.id.domain.native_vsan = htonl(21);  // between the first two keys
    EXPECT_EQ(list(&at, -1, 8 + 4 * 28), std::vector<Bytes>(all.begin() + 1, all.end()));

    // A start of neither kind is refused: no list and a size of 0, whatever the caller's variables
    // held, and nothing allocated. (The counts and stores the list reader refuses are the
    // virtual-domain suite's: both lists have the one reader.)
    const uint64_t allocs = zfx_num_mem_allocs;
    at.kind = htonl(3);
    alignas(4) uint8_t stale[8];
    zfx2_pfcid_list *l = reinterpret_cast<zfx2_pfcid_list *>(stale);
    uint32_t size = 5;
    EXPECT_EQ(zfx2_pfcid_get_next(r.get(), &at, 1, &l, &size), ZFX_ERR_INVALID_VALUE);
    EXPECT_EQ(l, nullptr);
    EXPECT_EQ(size, 0u);
    EXPECT_EQ(zfx_num_mem_allocs, allocs);
}

TEST(Pfcid, TextIsThatOfTheWalkOverTheWholeList) {
    std::mt19937 rng(7);
    auto pick = [&](uint32_t n) { return uint32_t(rng() % n); };
    std::map<Bytes, Bytes> table;
    for (int i = 0; i < 60; ++i)
        table.insert(pfcid_domain_rec(pick(3), pick(4), pick(3), pick(50), uint8_t(0x20 + pick(4)), 0, uint16_t(1 + pick(2))));
    for (int i = 0; i < 400; ++i) {
        Bytes wwn(8);
        for (uint8_t &b : wwn) b = uint8_t(pick(256));
        // The FCID's first byte is not part of it.
        const Bytes fcid = {uint8_t(pick(256)), uint8_t(0x20 + pick(4)), uint8_t(pick(256)), uint8_t(pick(256))};
        table.insert(pfcid_fcid_rec(pick(3), pick(4), wwn, fcid));
    }
    const std::vector<Record> records(table.begin(), table.end());
    const std::string expected = walk_text(records);
    ASSERT_GT(expected.size(), 250 * 40u);  // most FCIDs are placed, some more than once
    ASSERT_EQ(expected.rfind("  native-", 0), 0u);  // the table starts in AFID 0, VSAN 0: no header
    commit_reqd = 0;
    EXPECT_EQ(section(records), expected);
    EXPECT_EQ(commit_reqd, 1);
    // The commit is asked for by any record of the table, even one that writes no line.
    commit_reqd = 0;
    EXPECT_EQ(section({records.back()}), "");
    EXPECT_EQ(commit_reqd, 1);

    // Without memory for the index that places the FCIDs, the same text comes from scanning the
    // list under every domain record; a table without FCID records makes no index at all.
    std::vector<Record> domains;
    for (const Record &rec : records)
        if (rec.first[1] == 1) domains.push_back(rec);
    for (const auto &[stored, allocations] : {std::pair{records, 2u}, std::pair{domains, 1u}}) {
        Stored r(stored);
        int32_t commit = 0;
        const std::string text = generation_text([&](uint32_t handle) {
            zfx_testing_fail_allocation(2);  // the list, then the index
            EXPECT_EQ(zfx2_pfcid_generate_ascii_config(handle, r.get(), &commit), 0);
            EXPECT_EQ(zfx_testing_allocation_count(), allocations);
            zfx_testing_fail_allocation(0);
        });
        EXPECT_EQ(text, walk_text(stored));
        EXPECT_EQ(commit, 1);
    }
}

}  // namespace
