#define LOG_TAG "vexel_proxy"

#include "report/VexelProxy.h"

#include <dlfcn.h>

#include <atomic>
#include <initializer_list>

#include <log/log.h>

namespace android {

namespace {

constexpr char kLibraryPath[] = "libvexel.so";

// Written by Init and the wrappers, read by a dump on another thread.
std::atomic<int> gState{VexelProxy::NOT_LOADED_YET};
std::atomic<uint32_t> gMissingSymbols{0};
std::atomic<uint64_t> gLoadFailures{0};
std::atomic<uint64_t> gCreatesRefused{0};
std::atomic<uint64_t> gSendsRefused{0};

void Bump(std::atomic<uint64_t>& counter) { counter.fetch_add(1, std::memory_order_relaxed); }

template <typename Func>
void Resolve(void* handle, Func& slot, const char* symbol, Func fake) {
    slot = handle != nullptr ? reinterpret_cast<Func>(dlsym(handle, symbol)) : nullptr;
    if (slot == nullptr) {
        slot = fake;
        if (handle != nullptr) {
            gMissingSymbols.fetch_add(1, std::memory_order_relaxed);
        }
    }
}

}  // namespace

void* VexelProxy::g_handle = nullptr;
VexelProxy::CreateEventObjFunc VexelProxy::g_funcCreateEventObj = nullptr;
VexelProxy::SetParamFunc VexelProxy::g_funcSetParam = nullptr;
VexelProxy::UnsetParamFunc VexelProxy::g_funcUnsetParam = nullptr;
VexelProxy::SetTimeFunc VexelProxy::g_funcSetTime = nullptr;
VexelProxy::PathFunc VexelProxy::g_funcAddDynamicPath = nullptr;
VexelProxy::PathFunc VexelProxy::g_funcAddAndDelDynamicPath = nullptr;
VexelProxy::SendEventFunc VexelProxy::g_funcSendEvent = nullptr;
VexelProxy::DestroyEventObjFunc VexelProxy::g_funcDestroyEventObj = nullptr;
VexelProxy::IntegerV2Func VexelProxy::g_funcSetParamIntegerV2 = nullptr;
VexelProxy::IntegerV2Func VexelProxy::g_funcFillArrayParamIntegerV2 = nullptr;
VexelProxy::FloatV2Func VexelProxy::g_funcSetParamFloatV2 = nullptr;
VexelProxy::FloatV2Func VexelProxy::g_funcFillArrayParamFloatV2 = nullptr;
VexelProxy::StringV2Func VexelProxy::g_funcSetParamStringV2 = nullptr;
VexelProxy::StringV2Func VexelProxy::g_funcFillArrayParamStringV2 = nullptr;
VexelProxy::ClassV2Func VexelProxy::g_funcSetParamClassV2 = nullptr;
VexelProxy::ClassV2Func VexelProxy::g_funcFillArrayParamClassV2 = nullptr;

void VexelProxy::Init() {
    g_handle = dlopen(kLibraryPath, RTLD_NOW);
    if (g_handle == nullptr) {
        const char* error = dlerror();
        ALOGE("VexelProxy init failed. %s", error != nullptr ? error : "");
        Bump(gLoadFailures);
    }
    gMissingSymbols.store(0, std::memory_order_relaxed);
    Resolve(g_handle, g_funcCreateEventObj, "vexel_create_eventobj", FakeVexelCreateEventObj);
    Resolve(g_handle, g_funcSetParam, "vexel_set_param", FakeVexelSetParam);
    Resolve(g_handle, g_funcUnsetParam, "vexel_unset_param", FakeVexelUnsetParam);
    Resolve(g_handle, g_funcSetTime, "vexel_set_time", FakeVexelSetTime);
    Resolve(g_handle, g_funcAddDynamicPath, "vexel_add_dynamic_path", FakeVexelAddDynamicPath);
    Resolve(g_handle, g_funcAddAndDelDynamicPath, "vexel_add_and_del_dynamic_path",
            FakeVexelAddAndDelDynamicPath);
    Resolve(g_handle, g_funcSendEvent, "vexel_send_event", FakeVexelSendEvent);
    Resolve(g_handle, g_funcDestroyEventObj, "vexel_destroy_eventobj", FakeVexelDestroyEventObj);
    Resolve(g_handle, g_funcSetParamIntegerV2, "vexel_set_param_integer_v2",
            FakeVexelSetParamIntegerV2);
    Resolve(g_handle, g_funcFillArrayParamIntegerV2, "vexel_fill_array_param_integer_v2",
            FakeVexelFillArrayParamIntegerV2);
    Resolve(g_handle, g_funcSetParamFloatV2, "vexel_set_param_float_v2", FakeVexelSetParamFloatV2);
    Resolve(g_handle, g_funcFillArrayParamFloatV2, "vexel_fill_array_param_float_v2",
            FakeVexelFillArrayParamFloatV2);
    Resolve(g_handle, g_funcSetParamStringV2, "vexel_set_param_string_v2",
            FakeVexelSetParamStringV2);
    Resolve(g_handle, g_funcFillArrayParamStringV2, "vexel_fill_array_param_string_v2",
            FakeVexelFillArrayParamStringV2);
    Resolve(g_handle, g_funcSetParamClassV2, "vexel_set_param_class_v2", FakeVexelSetParamClassV2);
    Resolve(g_handle, g_funcFillArrayParamClassV2, "vexel_fill_array_param_class_v2",
            FakeVexelFillArrayParamClassV2);
    const State state = g_handle == nullptr ? ABSENT
                        : gMissingSymbols.load(std::memory_order_relaxed) != 0 ? LACKING
                                                                               : LOADED;
    gState.store(state, std::memory_order_relaxed);
}

VexelProxy::Stats VexelProxy::GetStats() {
    return {static_cast<State>(gState.load(std::memory_order_relaxed)),
            gMissingSymbols.load(std::memory_order_relaxed),
            gLoadFailures.load(std::memory_order_relaxed),
            gCreatesRefused.load(std::memory_order_relaxed),
            gSendsRefused.load(std::memory_order_relaxed)};
}

void VexelProxy::ResetStats() {
    for (std::atomic<uint64_t>* counter : {&gLoadFailures, &gCreatesRefused, &gSendsRefused}) {
        counter->store(0, std::memory_order_relaxed);
    }
}

// Loaded means a fresh dlopen yields our handle. That reference is kept on
// purpose: the library stays loaded for the life of the process.
bool VexelProxy::IsAvailable() {
    if (g_handle == nullptr) {
        return false;
    }
    void* fresh = dlopen(kLibraryPath, RTLD_NOW);
    if (fresh == g_handle) {
        return true;
    }
    if (fresh != nullptr) {
        dlclose(fresh);
    }
    return false;
}

void VexelProxy::MakeAvaliable() {
    if (!IsAvailable()) {
        Init();
    }
}

VexelEventObj* VexelProxy::VexelCreateEventObj(unsigned int eventId) {
    VexelEventObj* obj = Call(g_funcCreateEventObj, eventId);
    if (obj == nullptr) {
        Bump(gCreatesRefused);
    }
    return obj;
}

int VexelProxy::VexelSetParam(VexelEventObj* obj, unsigned short paramId, long value) {
    return Call(g_funcSetParam, obj, paramId, value);
}

int VexelProxy::VexelUnsetParam(VexelEventObj* obj, unsigned short paramId) {
    return Call(g_funcUnsetParam, obj, paramId);
}

int VexelProxy::VexelSetTime(VexelEventObj* obj, long long time) {
    return Call(g_funcSetTime, obj, time);
}

int VexelProxy::VexelAddDynamicPath(VexelEventObj* obj, const char* path) {
    return Call(g_funcAddDynamicPath, obj, path);
}

int VexelProxy::VexelAddAndDelDynamicPath(VexelEventObj* obj, const char* path) {
    return Call(g_funcAddAndDelDynamicPath, obj, path);
}

int VexelProxy::VexelSendEvent(VexelEventObj* obj) {
    const int result = Call(g_funcSendEvent, obj);
    if (result != 0) {
        Bump(gSendsRefused);
    }
    return result;
}

void VexelProxy::VexelDestroyEventObj(VexelEventObj* obj) { Call(g_funcDestroyEventObj, obj); }

int VexelProxy::VexelSetParamIntegerV2(VexelEventObj* obj, const char* name, long value) {
    return Call(g_funcSetParamIntegerV2, obj, name, value);
}

int VexelProxy::VexelFillArrayParamIntegerV2(VexelEventObj* obj, const char* name, long value) {
    return Call(g_funcFillArrayParamIntegerV2, obj, name, value);
}

int VexelProxy::VexelSetParamFloatV2(VexelEventObj* obj, const char* name, float value) {
    return Call(g_funcSetParamFloatV2, obj, name, value);
}

int VexelProxy::VexelFillArrayParamFloatV2(VexelEventObj* obj, const char* name, float value) {
    return Call(g_funcFillArrayParamFloatV2, obj, name, value);
}

int VexelProxy::VexelSetParamStringV2(VexelEventObj* obj, const char* name, const char* value) {
    return Call(g_funcSetParamStringV2, obj, name, value);
}

int VexelProxy::VexelFillArrayParamStringV2(VexelEventObj* obj, const char* name,
                                            const char* value) {
    return Call(g_funcFillArrayParamStringV2, obj, name, value);
}

int VexelProxy::VexelSetParamClassV2(VexelEventObj* obj, const char* name, VexelEventObj* value) {
    return Call(g_funcSetParamClassV2, obj, name, value);
}

int VexelProxy::VexelFillArrayParamClassV2(VexelEventObj* obj, const char* name,
                                           VexelEventObj* value) {
    return Call(g_funcFillArrayParamClassV2, obj, name, value);
}

// The fakes stand in for a missing library or entry point and report failure.
VexelEventObj* VexelProxy::FakeVexelCreateEventObj(unsigned int) { return nullptr; }
int VexelProxy::FakeVexelSetParam(VexelEventObj*, unsigned short, long) { return -1; }
int VexelProxy::FakeVexelUnsetParam(VexelEventObj*, unsigned short) { return -1; }
int VexelProxy::FakeVexelSetTime(VexelEventObj*, long long) { return -1; }
int VexelProxy::FakeVexelAddDynamicPath(VexelEventObj*, const char*) { return -1; }
int VexelProxy::FakeVexelAddAndDelDynamicPath(VexelEventObj*, const char*) { return -1; }
int VexelProxy::FakeVexelSendEvent(VexelEventObj*) { return -1; }
void VexelProxy::FakeVexelDestroyEventObj(VexelEventObj*) {}
int VexelProxy::FakeVexelSetParamIntegerV2(VexelEventObj*, const char*, long) { return -1; }
int VexelProxy::FakeVexelFillArrayParamIntegerV2(VexelEventObj*, const char*, long) { return -1; }
int VexelProxy::FakeVexelSetParamFloatV2(VexelEventObj*, const char*, float) { return -1; }
int VexelProxy::FakeVexelFillArrayParamFloatV2(VexelEventObj*, const char*, float) { return -1; }
int VexelProxy::FakeVexelSetParamStringV2(VexelEventObj*, const char*, const char*) { return -1; }
int VexelProxy::FakeVexelFillArrayParamStringV2(VexelEventObj*, const char*, const char*) {
    return -1;
}
int VexelProxy::FakeVexelSetParamClassV2(VexelEventObj*, const char*, VexelEventObj*) {
    return -1;
}
int VexelProxy::FakeVexelFillArrayParamClassV2(VexelEventObj*, const char*, VexelEventObj*) {
    return -1;
}

}  // namespace android
