// The recorders: which keys each event id fills, as tables read by one routine.
#define LOG_TAG "Vymedia_monitor_bigdata"

#include "writers/MediaBigDataWriter.h"

#include <stdint.h>
#include <string.h>
#include <time.h>

#include <algorithm>
#include <initializer_list>
#include <iterator>

#include <bounds_checked.h>
#include <log/log.h>
#include <qoview/QoView.h>

namespace android {

namespace {

// A recorder's arguments by position: its texts T0.., its numbers N0.., the
// constant 1 and the call's HAPPEN_TIME text.
enum Arg : uint8_t { T0, T1, T2, T3, T4, T5, N0, N1, N2, N3, ONE, NOW, NONE };

enum class Op : uint8_t {
    kEnd,     // ends a route's fields
    kCount,   // mBigDataCounts, summed
    kText,    // mBigDataStrings, last text
    kKvText,  // text field of the key/value record
    kKvSum,   // integer field of the key/value record, summed
};

// A fixed key, or an argument whose text is itself the key; implicit, so that
// the tables read as the keys themselves.
struct Key {
    constexpr Key() : name(nullptr), arg(NONE) {}
    constexpr Key(const char* fixed) : name(fixed), arg(NONE) {}
    constexpr Key(Arg text) : name(nullptr), arg(text) {}
    const char* name;
    Arg arg;
};

struct IdRange {
    int first;
    int last;
};
constexpr IdRange Id(int id) { return {id, id}; }
constexpr IdRange Ids(int first, int last) { return {first, last}; }

constexpr size_t kMaxFields = 7;
constexpr int kPlatformEventId = 916019105;
constexpr char kWriteException[] = "WriteException";

}  // namespace

struct MediaBigDataWriter::Field {
    Op op;
    Key key;
    Arg value;
};

struct MediaBigDataWriter::Route {
    IdRange ids;
    Field fields[kMaxFields];  // stored in this order, up to the first kEnd
};

struct MediaBigDataWriter::Args {
    Args(std::initializer_list<const String8*> textArgs, std::initializer_list<int> numberArgs,
         const String8& happenTime = String8())
        : now(happenTime) {
        std::copy(textArgs.begin(), textArgs.end(), texts);
        std::copy(numberArgs.begin(), numberArgs.end(), numbers);
    }
    const String8& Text(Arg arg) const { return arg == NOW ? now : *texts[arg - T0]; }
    int Number(Arg arg) const { return arg == ONE ? 1 : numbers[arg - N0]; }

    const String8* texts[N0 - T0] = {};
    int numbers[ONE - N0] = {};
    String8 now;
};

namespace {

using Field = MediaBigDataWriter::Field;
using Route = MediaBigDataWriter::Route;

constexpr Field Count(Key key, Arg value) { return {Op::kCount, key, value}; }
constexpr Field Text(Key key, Arg value) { return {Op::kText, key, value}; }
constexpr Field KvText(Key key, Arg value) { return {Op::kKvText, key, value}; }
constexpr Field KvSum(Key key, Arg value) { return {Op::kKvSum, key, value}; }

// WriteBigDataString: T0 subType, T1 extStr, N0 ext2.
constexpr Route kStringRoutes[] = {
        {Id(907400028), {Text(T0, T1)}},
        {Id(916120001), {KvText("PNAME", T0), KvText("F1NAME", T1), KvSum("DURATION", N0)}},
        {Id(918017006),
         {KvText("PROCESS_NAME", T0), KvText("FUNCTION_NAME", T1), KvSum("C_COUNT", N0)}},
        {Id(918027006),
         {KvText("PROCESS_NAME", T0), KvText("FUNCTION_NAME", T1), KvSum("C_COUNT", N0)}},
        {Id(990971030), {KvText("PACKAGENAME", T0), KvText("BIGTYPE", T1), KvSum("TIMES", N0)}},
};

// WriteBigDataPkg: T0 subType, T1 pkgName, T2 param.
constexpr Route kPkgRoutes[] = {
        {Ids(916600002, 916600008),
         {Text(T0, T1), Text("PARAMETER", T2), Text("HAPPEN_TIME", NOW)}},
        {Ids(916600010, 916600011), {Text(T0, T2)}},
        {Id(916600038), {Text("NEW_PKG", T0), Text("PRE_PKG", T1)}},
        {Id(916600039), {Text("ENABLE", T0)}},
        {Id(990971022), {Text("ACTIVITY", T0), Text("ACTION", T2), Text("PACKAGENAME", T1)}},
};

// WriteBigDataPkgType: T0 subType, T1 pkgName, T2 param.
constexpr Route kPkgTypeRoutes[] = {
        {Id(916000000), {Text(T0, T1), Text("PARAMETER", T2)}},
        {Id(916600001), {Text(T0, T1), Text("PARAMETER", T2), Text("HAPPEN_TIME", NOW)}},
        {Id(916600007), {Text(T0, T1), Text("PARAMETER", T2), Text("HAPPEN_TIME", NOW)}},
};

// WriteBigDataPlayStatus: T0 subType, T1 pkgName, T2 volume, T3 param.
constexpr Route kPlayStatusRoutes[] = {
        {Id(916600009),
         {Text(T0, T1), Text("VOLUME", T2), Text("PARAMETER", T3), Text("HAPPEN_TIME", NOW)}},
};

// WriteBigData: T0 subType, N0 ext1, N1 ext2.
constexpr Route kBigDataRoutes[] = {
        {Ids(916019101, 916019103), {Count(T0, N0), Count("Total", N0)}},
        {Ids(916019201, 916019203), {Count(T0, N0), Count("Total", N0)}},
        {Id(916019301), {Count(T0, ONE), Count("Total", ONE)}},
        {Ids(916220004, 916220005), {KvSum(T0, N0)}},
        {Id(916220007), {KvSum(T0, N0)}},
        {Id(916300001), {Count(T0, N0)}},
        {Id(916300002), {Count(T0, ONE)}},
        {Id(916400001), {Count(T0, ONE)}},
        {Id(916600020), {Count(T0, N0)}},
        {Id(916600030), {KvText("PACKAGENAME", T0), KvSum("SOURCE", N0), KvSum("SAMPLERATE", N1)}},
        {Id(916600040),
         {KvText("DEVICE_TYPE", T0), KvSum("USER_CHANGED", N0), KvSum("DURATION", N1)}},
        {Id(916700010), {KvSum("CHANNELCOUNT", N0), KvSum("USETIME", N1)}},
        {Id(916700012), {KvSum("USEEXTRAPROTOCOL", N0), KvSum("USESPLITSTREAMDEVICETYPE", N1)}},
        {Id(918017001), {KvText("PACKAGENAME", T0)}},
        {Id(918017007), {KvText("PACKAGENAME", T0), KvSum("DECODER", N0), KvSum("ENCODER", N1)}},
        {Id(990982018),
         {KvSum("CHANNELCOUNT", N0), KvSum("CHANNELMASK", N1), KvText("PACKAGENAME", T0)}},
        {Id(990982019), {KvSum("DEVICETYPE", N0)}},
};

// The two sub-recorders store under whatever id they are given.
// WriteBigDataBluetoothHDRecording: T0 pkgName, N0 source, N1 sampleRate,
// N2 bitWidth, N3 channelCount.
constexpr Field kBluetoothHDFields[kMaxFields] = {KvText("PACKAGENAME", T0), KvSum("SOURCE", N0),
                                                  KvSum("SAMPLERATE", N1), KvSum("BITWIDTH", N2),
                                                  KvSum("CHANNELCOUNT", N3)};
// WriteVirtualSplitStreamRecording: N0 useSplit, N1 splitStreamDevice, N2 streamType.
constexpr Field kSplitStreamFields[kMaxFields] = {KvSum("USESPLITSTREAM", N0),
                                                  KvSum("USESPLITSTREAMDEVICETYPE", N1),
                                                  KvSum("STREAMTYPE", N2)};

// WriteMediaCodecErrorBigData: T0..T4 s1..s5, N0 times.
constexpr Route kCodecErrorRoutes[] = {
        {Id(990971029),
         {KvText("BIGTYPE", T0), KvText("COLORSTANDARD", T1), KvText("COLORTRANSFER", T2),
          KvText("RESOLUTIONCHANGE", T3), KvSum("TIMES", N0)}},
        {Id(918017008),
         {KvText("PACKAGENAME", T0), KvText("APPPRIORITY", T1), KvText("RESOLUTION", T2),
          KvText("FRAMERATE", T3), KvText("PRIORITY", T4), KvSum("TIMES", N0)}},
};

// WriteMediaCatonVagueBigData: T0..T5 s1..s6, N0 times.
constexpr Route kCatonVagueRoutes[] = {
        {Id(918017009),
         {KvText("PACKAGENAME", T0), KvText("ISSURFACE", T1), KvText("FRAMERATECHANGE", T2),
          KvText("RESOLUTIONCHANGE", T3), KvText("RENDERINGFPS", T4), KvText("ISVAGUE", T5),
          KvSum("TIMES", N0)}},
};

// WriteVideoBigData: T0..T3 s1..s4, T4 and T5 the texts of num1 and num2, N0 times.
constexpr Route kVideoRoutes[] = {
        {Id(918017002),
         {KvText("PACKAGENAME", T0), KvText("TYPEINFO", T1), KvText("CODECNAME", T2),
          KvText("VIDEOSIZE", T3), KvText("VIDEOFPS", T4), KvText("TYPENUM", T5),
          KvSum("TIMES", N0)}},
        {Id(918017000),
         {KvText("PACKAGENAME", T0), KvText("OLDCODECNAME", T1), KvText("NEWCODECNAME", T2),
          KvText("VIDEOSIZE", T3), KvText("VIDEOFPS", T4), KvText("PRIORITY", T5),
          KvSum("TIMES", N0)}},
};

// WriteBigDataForOutputDevice: T0 subType, T1 pkgName, N0 ext1.
constexpr Route kOutputDeviceRoutes[] = {
        {Id(916019104), {KvSum(T0, N0), KvSum("Total", N0), KvText("pkgName", T1)}},
};

// WriteBigDataForDualBluetooth: T0 pkgName, N0..N2 type1..type3.
constexpr Route kDualBluetoothRoutes[] = {
        {Id(990982020),
         {KvSum("SPATIALOUTPUTTIME", N0), KvSum("SPATIALTIME", N1), KvSum("LEFTRIGHTTIME", N2)}},
        {Id(916700014),
         {KvText("pkgName", T0), KvSum("preStreamType", N0), KvSum("curStreamType", N1)}},
        {Id(916700013),
         {KvSum("localStreamType", N0), KvSum("oppositeStreamType", N1), KvSum("preemptFlag", N2)}},
};

// The fields of a route, up to the first kEnd.
const Field* FieldsEnd(const Field* fields) {
    const Field* end = fields;
    while (end != fields + kMaxFields && end->op != Op::kEnd) {
        ++end;
    }
    return end;
}

// The most bytes that storing field can add: a new key, with its text, under
// an event id new to its table.
size_t MostBytes(const Field& field, const MediaBigDataWriter::Args& args) {
    const size_t keyBytes =
            field.key.name != nullptr ? strlen(field.key.name) : args.Text(field.key.arg).length();
    const bool isText = field.op == Op::kText || field.op == Op::kKvText;
    const size_t valueBytes = isText ? args.Text(field.value).length() : 0;
    return keyBytes + valueBytes + 2 * BIGDATA_ENTRY_BYTES;
}

// Signed decimal text of at most 9 characters; a longer one is cut.
String8 NumberText(int number) {
    char text[10] = {};
    snprintf_s(text, sizeof(text), sizeof(text) - 1, "%d", number);
    return String8(text);
}

}  // namespace

bool MediaBigDataWriter::TakeHappenTime(String8* now) {
    const time_t seconds = time(nullptr);
    char text[26] = {};  // ctime's 24 characters, its newline and the NUL
    if (ctime_r(&seconds, text) == nullptr) {
        ALOGE("MediaBigDataWriter::WriteBigDataPkg ctime is null");
        return false;
    }
    now->setTo(text);
    return true;
}

bool MediaBigDataWriter::IsFull(const char* who) {
    if (mLogMemSize < mMaxBigDataSize) {
        return false;
    }
    if (mDebuggable) {
        ALOGD("%s: current bigdata size(%zu) exceed MAX_BIGDATA_SIZE(%zu)", who, mLogMemSize,
              mMaxBigDataSize);
    }
    return true;
}

bool MediaBigDataWriter::HasRoomFor(const Field* begin, const Field* end, int eventId,
                                    const Args& args) {
    size_t most = 0;
    for (const Field* field = begin; field != end; ++field) {
        most += MostBytes(*field, args);
    }
    if (mStoreBytes + most <= MAX_BIGDATA_BYTES) {
        return true;
    }
    if (mStoreFullLog.Allow()) {
        ALOGE("bigdata store full: %zu bytes, dropping event %d", mStoreBytes, eventId);
    }
    return false;
}

bool MediaBigDataWriter::Store(const Field* fields, int eventId, const Args& args) {
    const Field* const end = FieldsEnd(fields);
    if (!HasRoomFor(fields, end, eventId, args)) {
        return false;
    }
    for (const Field* field = fields; field != end; ++field) {
        const String8 key =
                field->key.name != nullptr ? String8(field->key.name) : args.Text(field->key.arg);
        switch (field->op) {
            case Op::kCount:
                UpdateBigDatas(eventId, key, args.Number(field->value));
                break;
            case Op::kText:
                UpdateBigDataStringValues(eventId, key, args.Text(field->value));
                break;
            case Op::kKvText:
                UpdateBigDataKeyValuesnfos(eventId, key, args.Text(field->value), -1);
                break;
            case Op::kKvSum:
                UpdateBigDataKeyValuesnfos(eventId, key, String8(), args.Number(field->value));
                break;
            case Op::kEnd:
                break;
        }
    }
    return true;
}

bool MediaBigDataWriter::Record(const Route* routes, size_t count, int eventId, const Args& args) {
    for (const Route* route = routes; route != routes + count; ++route) {
        if (eventId >= route->ids.first && eventId <= route->ids.last) {
            return Store(route->fields, eventId, args);
        }
    }
    ALOG_LIMITED(mUnknownTypeLog, ANDROID_LOG_ERROR, "Unknown bigdata type");
    return true;
}

void MediaBigDataWriter::RecordAndTrigger(const char* capWho, const Route* routes, size_t count,
                                          int eventId, const Args& args) {
    if (capWho != nullptr && IsFull(capWho)) {
        return;
    }
    if (Record(routes, count, eventId, args)) {
        TriggerLogStrategy();
    }
}

void MediaBigDataWriter::WriteBigDataString(int eventId, String8 subType, String8 extStr,
                                            int ext2) {
    Mutex::Autolock lock(mBigDataLock);
    if (mDebuggable) {
        ALOGD("WriteBigData eventId(%d), subType(%s), extStr(%s), ext2(%d)", eventId,
              subType.string(), extStr.string(), ext2);
    }
    RecordAndTrigger(kWriteException, kStringRoutes, std::size(kStringRoutes), eventId,
                     Args({&subType, &extStr}, {ext2}));
}

void MediaBigDataWriter::WriteBigDataPkg(int eventId, String8 subType, String8 pkgName,
                                         String8 param) {
    String8 now;
    if (!TakeHappenTime(&now)) {
        return;
    }
    Mutex::Autolock lock(mBigDataLock);
    if (mDebuggable) {
        ALOGD("WriteBigData eventId(%d), subType(%s), pkgName(%s), param(%s)", eventId,
              subType.string(), pkgName.string(), param.string());
    }
    RecordAndTrigger(kWriteException, kPkgRoutes, std::size(kPkgRoutes), eventId,
                     Args({&subType, &pkgName, &param}, {}, now));
}

void MediaBigDataWriter::WriteBigDataPkgType(int eventId, String8 subType, String8 pkgName,
                                             String8 param, int type) {
    String8 now;
    if (!TakeHappenTime(&now)) {
        return;
    }
    Mutex::Autolock lock(mBigDataLock);
    if (mDebuggable) {
        ALOGD("WriteBigData eventId(%d), subType(%s), param(%s), type(%d)", eventId,
              subType.string(), param.string(), type);
    }
    RecordAndTrigger(kWriteException, kPkgTypeRoutes, std::size(kPkgTypeRoutes), eventId,
                     Args({&subType, &pkgName, &param}, {}, now));
}

void MediaBigDataWriter::WriteBigDataPlayStatus(int eventId, String8 subType, String8 pkgName,
                                                String8 volume, String8 param) {
    String8 now;
    if (!TakeHappenTime(&now)) {
        return;
    }
    Mutex::Autolock lock(mBigDataLock);
    if (mDebuggable) {
        ALOGD("WriteBigData eventId(%d), subType(%s), volume(%s), param(%s)", eventId,
              subType.string(), volume.string(), param.string());
    }
    RecordAndTrigger(kWriteException, kPlayStatusRoutes, std::size(kPlayStatusRoutes), eventId,
                     Args({&subType, &pkgName, &volume, &param}, {}, now));
}

void MediaBigDataWriter::WriteBigData(int eventId, String8 subType, int ext1, int ext2) {
    Mutex::Autolock lock(mBigDataLock);
    if (mDebuggable) {
        ALOGD("WriteBigData eventId(%d), subType(%s), ext1(%d), ext2(%d)", eventId,
              subType.string(), ext1, ext2);
    }
    RecordAndTrigger(kWriteException, kBigDataRoutes, std::size(kBigDataRoutes), eventId,
                     Args({&subType}, {ext1, ext2}));
}

void MediaBigDataWriter::WriteBigData(int eventId, String8 pkgName, int a, int b, int c, int d) {
    Mutex::Autolock lock(mBigDataLock);
    if (IsFull(kWriteException)) {
        return;
    }
    if (eventId == 916700011) {
        WriteVirtualSplitStreamRecording(eventId, pkgName, a, b, c);
    } else if (eventId == 916700001) {
        WriteBigDataBluetoothHDRecording(eventId, pkgName, a, b, c, d);
    } else {
        ALOG_LIMITED(mUnknownTypeLog, ANDROID_LOG_ERROR, "Unknown bigdata type");
    }
    TriggerLogStrategy();
}

void MediaBigDataWriter::WriteBigDataBluetoothHDRecording(int eventId, String8 pkgName, int source,
                                                          int sampleRate, int bitWidth,
                                                          int channelCount) {
    if (mDebuggable) {
        ALOGD("WriteBigData eventId(%d), pkgName(%s), source(%d), sampleRate(%d), btWidth(%d),"
              "         channelCount(%d)",
              eventId, pkgName.string(), source, sampleRate, bitWidth, channelCount);
    }
    if (Store(kBluetoothHDFields, eventId,
              Args({&pkgName}, {source, sampleRate, bitWidth, channelCount}))) {
        TriggerLogStrategy();
    }
}

void MediaBigDataWriter::WriteVirtualSplitStreamRecording(int eventId, String8 pkgName,
                                                          int useSplit, int splitStreamDevice,
                                                          int streamType) {
    if (mDebuggable) {
        ALOGD("WriteBigData eventId(%d), pkgName(%s), useSplit(%d), splitStreamDevice(%d),"
              "         streamType(%d)",
              eventId, pkgName.string(), useSplit, splitStreamDevice, streamType);
    }
    if (Store(kSplitStreamFields, eventId,
              Args({&pkgName}, {useSplit, splitStreamDevice, streamType}))) {
        TriggerLogStrategy();
    }
}

void MediaBigDataWriter::WriteMediaCodecErrorBigData(int eventId, String8 s1, String8 s2,
                                                     String8 s3, String8 s4, String8 s5,
                                                     int times) {
    Mutex::Autolock lock(mBigDataLock);
    RecordAndTrigger("WriteMediaCodecErrorBigData", kCodecErrorRoutes, std::size(kCodecErrorRoutes),
                     eventId, Args({&s1, &s2, &s3, &s4, &s5}, {times}));
}

void MediaBigDataWriter::WriteMediaCatonVagueBigData(int eventId, String8 s1, String8 s2,
                                                     String8 s3, String8 s4, String8 s5, String8 s6,
                                                     int times) {
    Mutex::Autolock lock(mBigDataLock);
    RecordAndTrigger("WriteMediaCatonVagueBigData", kCatonVagueRoutes, std::size(kCatonVagueRoutes),
                     eventId, Args({&s1, &s2, &s3, &s4, &s5, &s6}, {times}));
}

void MediaBigDataWriter::WriteVideoBigData(int eventId, String8& s1, String8& s2, String8& s3,
                                           String8& s4, int num1, int num2, int times) {
    const String8 num1Text = NumberText(num1);
    const String8 num2Text = NumberText(num2);
    Mutex::Autolock lock(mBigDataLock);
    RecordAndTrigger(nullptr, kVideoRoutes, std::size(kVideoRoutes), eventId,
                     Args({&s1, &s2, &s3, &s4, &num1Text, &num2Text}, {times}));
}

void MediaBigDataWriter::WriteBigDataForOutputDevice(int eventId, String8 subType, String8 pkgName,
                                                     int ext1, int ext2) {
    Mutex::Autolock lock(mBigDataLock);
    if (mDebuggable) {
        ALOGD("WriteBigData eventId(%d), subtype(%s), pkgName(%s), ext1(%d), ext2(%d)", eventId,
              subType.string(), pkgName.string(), ext1, ext2);
    }
    if (eventId == kPlatformEventId) {
        QoEvent event(eventId);
        event.PutInt("SET_STREAM_VOLUME", ext1);
        event.PutString("pkgName", pkgName.string());
        event.PutInt("OUTPUT_DEVICE", ext2);
        QoView::Report(event);
        TriggerLogStrategy();
        return;
    }
    RecordAndTrigger(nullptr, kOutputDeviceRoutes, std::size(kOutputDeviceRoutes), eventId,
                     Args({&subType, &pkgName}, {ext1, ext2}));
}

void MediaBigDataWriter::WriteBigDataForDualBluetooth(int eventId, String8 pkgName, int type1,
                                                      int type2, int type3) {
    Mutex::Autolock lock(mBigDataLock);
    if (mDebuggable) {
        ALOGD("WriteBigData eventId(%d), pkgName(%s), type1(%d), type2(%d), type3(%d)", eventId,
              pkgName.string(), type1, type2, type3);
    }
    RecordAndTrigger(kWriteException, kDualBluetoothRoutes, std::size(kDualBluetoothRoutes),
                     eventId, Args({&pkgName}, {type1, type2, type3}));
}

}  // namespace android
