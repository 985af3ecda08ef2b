#include "ConnectionTable.h"

namespace android {

void ConnectionTable::Add(uint64_t id, uid_t uid) { mEntries[id] = {uid, ++mRound}; }

void ConnectionTable::Remove(uint64_t id) {
    const auto it = mEntries.find(id);
    if (it == mEntries.end()) {
        return;
    }
    if (it->second.retired) {
        --mRetired;
    }
    Unhold(&it->second);
    mEntries.erase(it);
}

void ConnectionTable::Clear() {
    mEntries.clear();
    mHeldByUid.clear();
    mRetired = 0;
}

ConnectionTable::HoldResult ConnectionTable::Hold(uint64_t id, size_t share) {
    const auto it = mEntries.find(id);
    if (it == mEntries.end() || it->second.held) {
        return TAKEN;
    }
    Entry& entry = it->second;
    size_t& held = mHeldByUid[entry.uid];
    if (held >= share) {
        if (entry.parkedAt == 0) {
            entry.parkedAt = ++mRound;
        }
        return PARKED;
    }
    ++held;
    entry.held = true;
    entry.parkedAt = 0;
    return HELD;
}

void ConnectionTable::Release(uint64_t id) {
    const auto it = mEntries.find(id);
    if (it != mEntries.end()) {
        Unhold(&it->second);
    }
}

void ConnectionTable::Unhold(Entry* entry) {
    if (!entry->held) {
        return;
    }
    entry->held = false;
    const auto held = mHeldByUid.find(entry->uid);
    if (--held->second == 0) {
        mHeldByUid.erase(held);
    }
}

uint64_t ConnectionTable::TakeParked(uid_t uid) {
    Entry* oldest = nullptr;
    uint64_t oldestId = 0;
    for (auto& [id, entry] : mEntries) {
        if (entry.uid == uid && entry.parkedAt != 0 &&
            (oldest == nullptr || entry.parkedAt < oldest->parkedAt)) {
            oldest = &entry;
            oldestId = id;
        }
    }
    if (oldest != nullptr) {
        oldest->parkedAt = 0;
    }
    return oldestId;
}

bool ConnectionTable::HasParked(uid_t uid) const {
    for (const auto& [id, entry] : mEntries) {
        if (entry.uid == uid && entry.parkedAt != 0) {
            return true;
        }
    }
    return false;
}

bool ConnectionTable::Held(uint64_t id) const {
    const auto it = mEntries.find(id);
    return it != mEntries.end() && it->second.held;
}

void ConnectionTable::Used(uint64_t id) {
    const auto it = mEntries.find(id);
    if (it != mEntries.end()) {
        it->second.lastUsed = ++mRound;
    }
}

void ConnectionTable::Retire(uint64_t id) {
    const auto it = mEntries.find(id);
    if (it != mEntries.end() && !it->second.retired) {
        it->second.retired = true;
        ++mRetired;
    }
}

bool ConnectionTable::Retired(uint64_t id) const {
    const auto it = mEntries.find(id);
    return it != mEntries.end() && it->second.retired;
}

uint64_t ConnectionTable::Victim() const {
    std::map<uid_t, size_t> perUid;
    for (const auto& [id, entry] : mEntries) {
        ++perUid[entry.uid];
    }
    uint64_t victim = 0;
    const Entry* chosen = nullptr;
    for (const auto& [id, entry] : mEntries) {
        if (entry.held || entry.retired || entry.parkedAt != 0) {
            continue;
        }
        if (chosen == nullptr || perUid[entry.uid] > perUid[chosen->uid] ||
            (perUid[entry.uid] == perUid[chosen->uid] && entry.lastUsed < chosen->lastUsed)) {
            victim = id;
            chosen = &entry;
        }
    }
    return victim;
}

}  // namespace android
