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
    mEntries.erase(it);
}

void ConnectionTable::Clear() {
    mEntries.clear();
    mRetired = 0;
}

bool ConnectionTable::Hold(uint64_t id) {
    const auto it = mEntries.find(id);
    if (it == mEntries.end() || it->second.held) {
        return false;
    }
    it->second.held = true;
    return true;
}

void ConnectionTable::Release(uint64_t id) {
    const auto it = mEntries.find(id);
    if (it != mEntries.end()) {
        it->second.held = false;
    }
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
        if (entry.held || entry.retired) {
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
