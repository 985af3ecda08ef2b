// Front of the reporting library "libvexel.so", loaded at run time. Each
// wrapper loads the library when it is not loaded yet and falls back to a
// harmless fake when the library or its entry point is missing, so writers
// never test for the library themselves.
//
// No lock: the globals are touched only by the writers' upload routines,
// which the service serialises under its own lock. A caller outside that lock
// must serialise its calls itself.
#ifndef VYMM_REPORT_VEXEL_PROXY_H
#define VYMM_REPORT_VEXEL_PROXY_H

#include <stdint.h>

// The reporting library's opaque event object.
typedef struct VexelEventObj VexelEventObj;

namespace android {

class VexelProxy {
public:
    // Results are the library's; without the library or the entry point,
    // create gives null and the others -1.
    static VexelEventObj* VexelCreateEventObj(unsigned int eventId);
    static int VexelSetParam(VexelEventObj* obj, unsigned short paramId, long value);
    static int VexelUnsetParam(VexelEventObj* obj, unsigned short paramId);
    static int VexelSetTime(VexelEventObj* obj, long long time);
    static int VexelAddDynamicPath(VexelEventObj* obj, const char* path);
    static int VexelAddAndDelDynamicPath(VexelEventObj* obj, const char* path);
    static int VexelSendEvent(VexelEventObj* obj);
    static void VexelDestroyEventObj(VexelEventObj* obj);
    static int VexelSetParamIntegerV2(VexelEventObj* obj, const char* name, long value);
    static int VexelFillArrayParamIntegerV2(VexelEventObj* obj, const char* name, long value);
    static int VexelSetParamFloatV2(VexelEventObj* obj, const char* name, float value);
    static int VexelFillArrayParamFloatV2(VexelEventObj* obj, const char* name, float value);
    static int VexelSetParamStringV2(VexelEventObj* obj, const char* name, const char* value);
    static int VexelFillArrayParamStringV2(VexelEventObj* obj, const char* name,
                                           const char* value);
    static int VexelSetParamClassV2(VexelEventObj* obj, const char* name, VexelEventObj* value);
    static int VexelFillArrayParamClassV2(VexelEventObj* obj, const char* name,
                                          VexelEventObj* value);

    // Loads the library and resolves every entry point (or its fake).
    // Never closes an earlier handle.
    static void Init();
    // True when the library is loaded. Each true answer leaves one more
    // reference on the library, which is never unloaded while the process runs.
    static bool IsAvailable();
    static void MakeAvaliable();

    // How the library has served the uploads, for the statistics dump. The
    // counters are atomic, so a dump may read them from any thread.
    enum State : int { NOT_LOADED_YET, LOADED, ABSENT, LACKING };
    struct Stats {
        State state;
        uint32_t missingSymbols;  // entry points served by their fake
        uint64_t loadFailures;    // dlopen failed
        uint64_t createsRefused;  // no event object for an id
        uint64_t sendsRefused;    // a send that did not return 0
    };
    static Stats GetStats();
    // Zeroes the counters; the state stays.
    static void ResetStats();

protected:
    using CreateEventObjFunc = VexelEventObj* (*)(unsigned int);
    using SetParamFunc = int (*)(VexelEventObj*, unsigned short, long);
    using UnsetParamFunc = int (*)(VexelEventObj*, unsigned short);
    using SetTimeFunc = int (*)(VexelEventObj*, long long);
    using PathFunc = int (*)(VexelEventObj*, const char*);
    using SendEventFunc = int (*)(VexelEventObj*);
    using DestroyEventObjFunc = void (*)(VexelEventObj*);
    using IntegerV2Func = int (*)(VexelEventObj*, const char*, long);
    using FloatV2Func = int (*)(VexelEventObj*, const char*, float);
    using StringV2Func = int (*)(VexelEventObj*, const char*, const char*);
    using ClassV2Func = int (*)(VexelEventObj*, const char*, VexelEventObj*);

    static VexelEventObj* FakeVexelCreateEventObj(unsigned int eventId);
    static int FakeVexelSetParam(VexelEventObj* obj, unsigned short paramId, long value);
    static int FakeVexelUnsetParam(VexelEventObj* obj, unsigned short paramId);
    static int FakeVexelSetTime(VexelEventObj* obj, long long time);
    static int FakeVexelAddDynamicPath(VexelEventObj* obj, const char* path);
    static int FakeVexelAddAndDelDynamicPath(VexelEventObj* obj, const char* path);
    static int FakeVexelSendEvent(VexelEventObj* obj);
    static void FakeVexelDestroyEventObj(VexelEventObj* obj);
    static int FakeVexelSetParamIntegerV2(VexelEventObj* obj, const char* name, long value);
    static int FakeVexelFillArrayParamIntegerV2(VexelEventObj* obj, const char* name, long value);
    static int FakeVexelSetParamFloatV2(VexelEventObj* obj, const char* name, float value);
    static int FakeVexelFillArrayParamFloatV2(VexelEventObj* obj, const char* name, float value);
    static int FakeVexelSetParamStringV2(VexelEventObj* obj, const char* name, const char* value);
    static int FakeVexelFillArrayParamStringV2(VexelEventObj* obj, const char* name,
                                               const char* value);
    static int FakeVexelSetParamClassV2(VexelEventObj* obj, const char* name,
                                        VexelEventObj* value);
    static int FakeVexelFillArrayParamClassV2(VexelEventObj* obj, const char* name,
                                              VexelEventObj* value);

    // Handle of the last dlopen in Init; null until then or when it failed.
    static void* g_handle;
    // The library's entry points or their fakes; null only before the first Init.
    static CreateEventObjFunc g_funcCreateEventObj;
    static SetParamFunc g_funcSetParam;
    static UnsetParamFunc g_funcUnsetParam;
    static SetTimeFunc g_funcSetTime;
    static PathFunc g_funcAddDynamicPath;
    static PathFunc g_funcAddAndDelDynamicPath;
    static SendEventFunc g_funcSendEvent;
    static DestroyEventObjFunc g_funcDestroyEventObj;
    static IntegerV2Func g_funcSetParamIntegerV2;
    static IntegerV2Func g_funcFillArrayParamIntegerV2;
    static FloatV2Func g_funcSetParamFloatV2;
    static FloatV2Func g_funcFillArrayParamFloatV2;
    static StringV2Func g_funcSetParamStringV2;
    static StringV2Func g_funcFillArrayParamStringV2;
    static ClassV2Func g_funcSetParamClassV2;
    static ClassV2Func g_funcFillArrayParamClassV2;

private:
    // Loads on demand, then calls the resolved entry point or its fake.
    template <typename Func, typename... Args>
    static auto Call(const Func& func, Args... args) {
        MakeAvaliable();
        return func(args...);
    }
};

}  // namespace android

#endif
