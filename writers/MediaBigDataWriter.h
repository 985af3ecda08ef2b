// The big-data writer (type 6): usage statistics per event id, kept in memory
// between two uploads. Recorders count, sum or keep the last text under fixed
// keys; the send policy uploads the whole store once a cycle, then empties it.
//
// Called on the service's worker thread, and on a Binder thread for a dump.
// mBigDataLock guards the three tables, their size in bytes and the memory
// charge mLogMemSize; the public operations take it for their whole body,
// TriggerLogStrategy included, so the policy's call-backs (DoSendMediaLog,
// ResetLogMem, the getters) and the update primitives run with it held and
// never take it.
#ifndef VYMM_WRITERS_MEDIA_BIG_DATA_WRITER_H
#define VYMM_WRITERS_MEDIA_BIG_DATA_WRITER_H

#include <stddef.h>

#include <utils/KeyedVector.h>
#include <utils/Mutex.h>
#include <utils/String8.h>

#include "common/LogRateLimiter.h"
#include "writers/MediaLogBase.h"

namespace android {

// The key/value record of one event id: integer fields are summed, text fields
// keep the last text.
struct BigDataKeyValuesVector {
    DefaultKeyedVector<String8, int> intValues{0};
    DefaultKeyedVector<String8, String8> strValues{String8()};
};

// The memory charge is an estimate, not bytes: +4 per new integer key, set to
// 8 on every new or changed text.
constexpr size_t MAX_BIGDATA_SIZE = 2048;
// Distinct texts never raise that estimate, so the tables also have a hard
// limit in bytes: keys and texts as stored, plus BIGDATA_ENTRY_BYTES per
// entry (a key and its value, or an event id's table) for the buffer headers
// and the table slot. A store full under the cap holds at most 512 counters
// and a few texts, some 40 KiB with real keys: the limit only stops a flood.
constexpr size_t MAX_BIGDATA_BYTES = 256 * 1024;
constexpr size_t BIGDATA_ENTRY_BYTES = 64;

class MediaBigDataWriter : public MediaLogBase {
public:
    explicit MediaBigDataWriter(const sp<MediaMonitorPolicy>& policy);
    ~MediaBigDataWriter() override;

    // Recorders. Each stores its event under the id's keys, unless the charge
    // has reached MAX_BIGDATA_SIZE or the event could take the tables past
    // MAX_BIGDATA_BYTES, then consults the send policy; a refused event is
    // dropped whole and does not consult it. Unknown ids are logged and only
    // consult the policy.
    void WriteBigDataString(int eventId, String8 subType, String8 extStr, int ext2);
    void WriteBigDataPkg(int eventId, String8 subType, String8 pkgName, String8 param);
    // type is only logged.
    void WriteBigDataPkgType(int eventId, String8 subType, String8 pkgName, String8 param,
                             int type);
    void WriteBigDataPlayStatus(int eventId, String8 subType, String8 pkgName, String8 volume,
                                String8 param);
    void WriteBigData(int eventId, String8 subType, int ext1, int ext2);
    // Routes to one of the two recording sub-recorders below.
    void WriteBigData(int eventId, String8 pkgName, int a, int b, int c, int d);
    // Sub-recorders of the overload above: no id check, no cap check, and they
    // consult the policy themselves, so their caller's event does it twice;
    // when the byte limit refuses the event, only the caller does.
    void WriteBigDataBluetoothHDRecording(int eventId, String8 pkgName, int source, int sampleRate,
                                          int bitWidth, int channelCount) REQUIRES(mBigDataLock);
    void WriteVirtualSplitStreamRecording(int eventId, String8 pkgName, int useSplit,
                                          int splitStreamDevice, int streamType)
            REQUIRES(mBigDataLock);
    void WriteMediaCodecErrorBigData(int eventId, String8 s1, String8 s2, String8 s3, String8 s4,
                                     String8 s5, int times);
    void WriteMediaCatonVagueBigData(int eventId, String8 s1, String8 s2, String8 s3, String8 s4,
                                     String8 s5, String8 s6, int times);
    // Records even over the cap, not over the byte limit.
    void WriteVideoBigData(int eventId, String8& s1, String8& s2, String8& s3, String8& s4,
                           int num1, int num2, int times);
    // Records even over the cap, not over the byte limit; id 916019105 is
    // reported at once as a platform event and not stored.
    void WriteBigDataForOutputDevice(int eventId, String8 subType, String8 pkgName, int ext1,
                                     int ext2);
    void WriteBigDataForDualBluetooth(int eventId, String8 pkgName, int type1, int type2,
                                      int type3);

    // Forced upload, as at shutdown.
    void SendMediaLog();
    // Consults the send policy without recording anything.
    void TriggerLog();
    // The counter and text tables as text; the key/value records are not shown.
    // A negative fd gets nothing.
    String8 DumpText() override;
    // Records are event ids, counted once per table that holds them.
    WriterStats GetStats() override EXCLUDES(mBigDataLock);

    // Call-backs of the send policy and the constructor, run with the lock held.
    // The upload sends one report event per (table, event id) and returns
    // true; mLastSendTime then moves on by exactly one cycle.
    bool DoSendMediaLog() override REQUIRES(mBigDataLock);
    void DoSendMediaLogNew() REQUIRES(mBigDataLock);
    void ResetLogMem() override REQUIRES(mBigDataLock);
    void GetMemInfos(int* curSize, int* maxSize) override REQUIRES(mBigDataLock);
    void GetLastTime(long* lastTime, long* period) override REQUIRES(mBigDataLock);

    // Store primitives. A counter starts at its first delta and then only takes
    // additions whose sum stays in 0..INT32_MAX; a text is replaced when it
    // differs. intValue -1 and an empty strValue mean "no number" / "no text".
    // They keep the byte count exact but leave the limit to the recorders.
    void UpdateBigDatas(int eventId, String8 key, int delta) REQUIRES(mBigDataLock);
    void UpdateBigDataStringValues(int eventId, String8 key, String8 value) REQUIRES(mBigDataLock);
    void UpdateBigDataKeyValuesnfos(int eventId, String8 key, String8 strValue, int intValue)
            REQUIRES(mBigDataLock);
    void UpdateBigData(DefaultKeyedVector<String8, int>& table, String8 key, int delta)
            REQUIRES(mBigDataLock);
    void UpdateBigDataKeyValuesTypeInt(DefaultKeyedVector<String8, int>& table, String8 key,
                                       int delta) REQUIRES(mBigDataLock);
    void UpdateBigDataString(DefaultKeyedVector<String8, String8>& table, String8 key,
                             String8 value) REQUIRES(mBigDataLock);
    void UpdateBigDataKeyValuesTypeStr(DefaultKeyedVector<String8, String8>& table, String8 key,
                                       String8 value) REQUIRES(mBigDataLock);

    // How recorders describe their events; defined with the event tables.
    struct Args;
    struct Field;
    struct Route;

protected:
    Mutex& WriterLock() override RETURN_CAPABILITY(mBigDataLock) { return mBigDataLock; }
    void EncodeState(StateWriter* out) override REQUIRES(mBigDataLock);
    bool ApplyOperation(uint8_t kind, StateReader& op) override;

    // Guarded by mBigDataLock.
    DefaultKeyedVector<int, DefaultKeyedVector<String8, int>> mBigDataCounts
            GUARDED_BY(mBigDataLock);
    DefaultKeyedVector<int, DefaultKeyedVector<String8, String8>> mBigDataStrings
            GUARDED_BY(mBigDataLock);
    DefaultKeyedVector<int, BigDataKeyValuesVector> mBigDataKeyValues GUARDED_BY(mBigDataLock);
    // The three tables' bytes as MAX_BIGDATA_BYTES counts them.
    size_t mStoreBytes GUARDED_BY(mBigDataLock);

    // Constant after construction.
    const size_t mMaxBigDataSize;
    const int mBigDataReserve;  // kept for the record; nothing reads it

    Mutex mBigDataLock;

private:
    // Operation kinds of the journal and the snapshot: the three primitives.
    enum : uint8_t { OP_COUNT = 1, OP_TEXT = 2, OP_KEY_VALUE = 3 };
    void JournalUpdate(uint8_t kind, int eventId, const String8& key, const String8& text,
                       int number) REQUIRES(mBigDataLock);
    static void EncodeUpdate(uint8_t kind, int eventId, const String8& key, const String8& text,
                             int number, StateWriter* op);

    // Thread-safe on their own: the lines that a client can provoke per call.
    LogRateLimiter mStoreFullLog;
    LogRateLimiter mUnknownTypeLog;

    // Stores the fields of eventId's route, or logs the id as unknown; false
    // when the byte limit refused the event.
    bool Record(const Route* routes, size_t count, int eventId, const Args& args)
            REQUIRES(mBigDataLock);
    // Stores all the fields, or none of them (false, logged) when they could
    // take the tables past MAX_BIGDATA_BYTES.
    bool Store(const Field* fields, int eventId, const Args& args) REQUIRES(mBigDataLock);
    bool HasRoomFor(const Field* begin, const Field* end, int eventId, const Args& args)
            REQUIRES(mBigDataLock);
    // Stores the event unless capWho is set and the charge has reached the cap
    // (logged under capWho's name), or the byte limit refuses it; then
    // consults the policy unless refused.
    void RecordAndTrigger(const char* capWho, const Route* routes, size_t count, int eventId,
                          const Args& args) REQUIRES(mBigDataLock);
    bool IsFull(const char* who) REQUIRES(mBigDataLock);
    // The HAPPEN_TIME text, ctime's form with its newline; false, logged, when
    // the time cannot be converted.
    static bool TakeHappenTime(String8* now);
    void UpdateInt(DefaultKeyedVector<String8, int>& table, const String8& key, int delta)
            REQUIRES(mBigDataLock);
    void UpdateStr(DefaultKeyedVector<String8, String8>& table, const String8& key,
                   const String8& value) REQUIRES(mBigDataLock);
    // The entry of eventId in table, added empty (and counted) when absent.
    template <typename Value>
    Value& EntryFor(DefaultKeyedVector<int, Value>& table, int eventId) REQUIRES(mBigDataLock);
};

}  // namespace android

#endif
