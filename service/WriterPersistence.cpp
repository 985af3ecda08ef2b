#define LOG_TAG "Vymedia_monitor"

#include "service/WriterPersistence.h"

#include <log/log.h>

#include "service/ServiceProperties.h"

namespace android {

namespace {

// In the writers' fixed order: the state files' names.
constexpr const char* kStoreNames[MONITOR_WRITERS] = {
        "exceptionlog", "bdflow", "bdcount", "exception", "kpi", "bigdata",
};

}  // namespace

std::unique_ptr<WriterPersistence> WriterPersistence::Create() {
    if (ReadIntProperty("ro.media.persist", "1") == 0) {
        return nullptr;
    }
    const int32_t seconds = ReadIntProperty("ro.media.persistsync", "0");
    return std::unique_ptr<WriterPersistence>(
            new WriterPersistence(seconds > 0 ? seconds_to_nanoseconds(seconds) : 0));
}

WriterPersistence::WriterPersistence(nsecs_t syncInterval)
    : mSyncInterval(syncInterval), mLastSync(systemTime(SYSTEM_TIME_MONOTONIC)) {}

void WriterPersistence::Recover(const Writers& writers) {
    for (size_t i = 0; i < MONITOR_WRITERS; ++i) {
        if (writers[i] == nullptr) {
            continue;
        }
        mStores[i].reset(new WriterStore(STATE_DIR, kStoreNames[i]));
        writers[i]->Recover(mStores[i]->Load());
        writers[i]->AttachStore(mStores[i].get());
    }
}

void WriterPersistence::PersistBatch(const Writers& writers) {
    for (size_t i = 0; i < MONITOR_WRITERS; ++i) {
        if (writers[i] != nullptr && mStores[i] != nullptr) {
            Persist(writers[i].get(), mStores[i].get());
        }
    }
    const nsecs_t now = systemTime(SYSTEM_TIME_MONOTONIC);
    if (mSyncInterval > 0 && now - mLastSync >= mSyncInterval) {
        mLastSync = now;
        for (const auto& store : mStores) {
            if (store != nullptr) {
                store->SyncJournal();
            }
        }
    }
}

void WriterPersistence::Persist(MediaLogBase* writer, WriterStore* store) {
    MediaLogBase::PersistWork work = writer->TakePersistWork();
    if (!work.snapshot && store->JournalBytes() + work.bytes.size() > JOURNAL_FOLD_BYTES) {
        writer->RequestSnapshot();
        work = writer->TakePersistWork();
    }
    const bool kept = work.snapshot ? store->WriteSnapshot(work.bytes) : store->Append(work.bytes);
    if (!kept) {
        // What was lost with the write is in the writer: the next batch
        // tries a snapshot of it.
        writer->RequestSnapshot();
    }
}

}  // namespace android
