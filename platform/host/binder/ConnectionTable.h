// The host pool's book of open connections, without sockets or threads:
// which are held by a serving thread, which wait because their uid holds
// its share of the threads (parked), which are retired (shut for reading,
// running what they were sent), and which one makes room for a new
// connection at the bound. Not thread-safe: the pool calls it under its
// lock. Ids are the pool's, never 0.
#ifndef HOST_BINDER_CONNECTION_TABLE_H
#define HOST_BINDER_CONNECTION_TABLE_H

#include <stdint.h>
#include <sys/types.h>

#include <map>

namespace android {

class ConnectionTable {
public:
    // bound: live connections at once, not counting retired ones.
    explicit ConnectionTable(size_t bound) : mBound(bound) {}

    // A connection opened by uid, as used most recently.
    void Add(uint64_t id, uid_t uid);
    void Remove(uint64_t id);
    void Clear();
    enum HoldResult {
        HELD,    // the calling thread holds id
        TAKEN,   // another thread holds it, or it is gone
        PARKED,  // its uid holds share connections: it waits for TakeParked()
    };
    // Marks id held by the calling thread, unless its uid holds share
    // connections already.
    HoldResult Hold(uint64_t id, size_t share);
    void Release(uint64_t id);
    // The connection of uid parked longest, no longer parked; 0 when none.
    uint64_t TakeParked(uid_t uid);
    bool HasParked(uid_t uid) const;
    bool Held(uint64_t id) const;
    // A request was read from id.
    void Used(uint64_t id);
    void Retire(uint64_t id);
    bool Retired(uint64_t id) const;

    size_t Live() const { return mEntries.size() - mRetired; }
    bool AtBound() const { return Live() >= mBound; }
    // The connection to retire for a new one at the bound: of the uid
    // holding the most connections, the one used least recently that no
    // thread holds and that is not parked; 0 when there is none.
    uint64_t Victim() const;

private:
    struct Entry {
        uid_t uid;
        uint64_t lastUsed;  // mRound of its accept or last request
        uint64_t parkedAt = 0;  // mRound when parked; 0 when not
        bool held = false;
        bool retired = false;
    };

    void Unhold(Entry* entry);

    const size_t mBound;
    std::map<uint64_t, Entry> mEntries;
    size_t mRetired = 0;
    uint64_t mRound = 0;
    std::map<uid_t, size_t> mHeldByUid;  // no entry for a uid holding none
};

}  // namespace android

#endif
