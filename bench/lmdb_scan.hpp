// The reference of the store benchmarks: a bare LMDB cursor scan of a table, the least any reader
// of its records must do, without the platform's store layer.
#pragma once

#include <lmdb.h>

#include <cstddef>
#include <cstdint>
#include <string>

class LmdbScan {
public:
    // Opens the LMDB store at location read-only, in one read transaction for the whole run.
    explicit LmdbScan(const std::string &location) {
        mdb_env_create(&env_);
        mdb_env_set_mapsize(env_, size_t(256) << 20);
        mdb_env_open(env_, location.c_str(), MDB_RDONLY | MDB_NOTLS, 0644);
        mdb_txn_begin(env_, nullptr, MDB_RDONLY, &txn_);
        mdb_dbi_open(txn_, nullptr, 0, &dbi_);
    }
    ~LmdbScan() {
        mdb_txn_abort(txn_);
        mdb_env_close(env_);
    }
    LmdbScan(const LmdbScan &) = delete;
    LmdbScan &operator=(const LmdbScan &) = delete;

    // Walks the keys from start on while in_table accepts them and sums the byte at value_pos
    // of each value (the last one when value_pos is past it), so that every value is touched.
    template <typename InTable>
    uint64_t scan(const void *start, size_t start_len, size_t value_pos, InTable &&in_table) const {
        MDB_cursor *cur;
        mdb_cursor_open(txn_, dbi_, &cur);
        MDB_val k{start_len, const_cast<void *>(start)}, v;
        uint64_t sum = 0;
        for (int rc = mdb_cursor_get(cur, &k, &v, MDB_SET_RANGE); rc == 0 && in_table(k);
             rc = mdb_cursor_get(cur, &k, &v, MDB_NEXT)) {
            if (v.mv_size != 0) sum += static_cast<const uint8_t *>(v.mv_data)[value_pos < v.mv_size ? value_pos : v.mv_size - 1];
        }
        mdb_cursor_close(cur);
        return sum;
    }

private:
    MDB_env *env_ = nullptr;
    MDB_txn *txn_ = nullptr;
    MDB_dbi dbi_ = 0;
};
