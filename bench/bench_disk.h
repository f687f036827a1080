// What the persistent benchmarks share: a scratch directory on the disk
// ($QK_BENCH_DISK_DIR, else /var/tmp) and the LMDB peer's environment.
#pragma once

#include <lmdb.h>
#include <stdlib.h>
#include <unistd.h>

#include <string>

#include "qk/qkcommon.h"

namespace qkbench {

#define LMDB_CHECK(call)                    \
    do {                                    \
        if ((call) != MDB_SUCCESS) abort(); \
    } while (0)

inline std::string DiskDir(const std::string &what) {
    const char *env = getenv("QK_BENCH_DISK_DIR");
    std::string base = env && *env ? env : "/var/tmp";
    return base + "/qkbench_" + what + "_" + std::to_string(getpid());
}

inline void RemoveDir(const std::string &dir) {
    DirectoryRemoveContents(dir.c_str());
    rmdir(dir.c_str());
}

struct LmdbSide {
    std::string dir;
    MDB_env *env;
    MDB_dbi dbi;
};

// A fresh environment of one database, by default with native integer keys.
inline LmdbSide OpenLmdb(const std::string &what, unsigned flags = MDB_INTEGERKEY) {
    LmdbSide side;
    side.dir = DiskDir(what);
    RemoveDir(side.dir);
    if (!DirectoryCreate(nullptr, side.dir.c_str(), 1)) abort();
    LMDB_CHECK(mdb_env_create(&side.env));
    LMDB_CHECK(mdb_env_set_mapsize(side.env, (size_t)4 << 30));
    LMDB_CHECK(mdb_env_open(side.env, side.dir.c_str(), 0, 0600));
    MDB_txn *txn;
    LMDB_CHECK(mdb_txn_begin(side.env, nullptr, 0, &txn));
    LMDB_CHECK(mdb_dbi_open(txn, nullptr, flags, &side.dbi));
    LMDB_CHECK(mdb_txn_commit(txn));
    return side;
}

inline void CloseLmdb(LmdbSide &side) {
    mdb_env_close(side.env);
    RemoveDir(side.dir);
}

}  // namespace qkbench
