// Keeps what each writer holds on storage as well, so that a service started
// again on the same folder, however the last one ended, begins with the
// records the last one held. On by default; ro.media.persist=0 keeps nothing.
//
// Recover runs on the starting thread before the service is published;
// PersistBatch on the worker after each batch, then once more on the thread
// that runs the shutdown once the worker has stopped. It needs no lock: those
// never overlap, and a writer's own lock guards what it hands over.
#ifndef VYMM_SERVICE_WRITER_PERSISTENCE_H
#define VYMM_SERVICE_WRITER_PERSISTENCE_H

#include <array>
#include <memory>

#include <utils/RefBase.h>
#include <utils/Timers.h>

#include "service/MonitorStats.h"
#include "writers/MediaLogBase.h"
#include "writers/WriterStore.h"

namespace android {

class WriterPersistence {
public:
    using Writers = std::array<sp<MediaLogBase>, MONITOR_WRITERS>;

    // The folder of the state files, beside the record files.
    static constexpr char STATE_DIR[] = "data/log";
    // A journal past this many bytes is folded into a new snapshot, which
    // bounds what a start-up replays and what a flood of one call writes.
    // Each fold costs two fsyncs on the worker, so not much lower.
    static constexpr size_t JOURNAL_FOLD_BYTES = 64 * 1024;
    // The journal stays within what a start-up reads back even if every
    // operation is the smallest (a kind byte: 5 bytes framed, 13 as a record).
    static_assert(JOURNAL_FOLD_BYTES / 5 * 13 <= WriterStore::MAX_JOURNAL_BYTES,
                  "a folded journal must be read back whole");

    // Null when ro.media.persist is 0.
    static std::unique_ptr<WriterPersistence> Create();

    // Loads each present writer's state through its own methods, then has it
    // journal from now on.
    void Recover(const Writers& writers);
    // Writes what each writer took in since the last batch: its operations
    // in one append, or a snapshot when its records changed otherwise.
    void PersistBatch(const Writers& writers);

private:
    explicit WriterPersistence(nsecs_t syncInterval);
    void Persist(MediaLogBase* writer, WriterStore* store);

    std::array<std::unique_ptr<WriterStore>, MONITOR_WRITERS> mStores;
    // ro.media.persistsync seconds: the journals are fdatasync'ed that often
    // (0: left to the kernel's write-back).
    const nsecs_t mSyncInterval;
    nsecs_t mLastSync;
};

}  // namespace android

#endif
