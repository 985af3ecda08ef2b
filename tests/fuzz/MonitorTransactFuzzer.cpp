// Feeds arbitrary parcels to the service side of the interface: the first
// byte picks the transaction, the rest is the parcel after a valid token
// (or, for odd picks, the raw parcel), so both the token check and the
// argument readers see hostile data.
#include <stddef.h>
#include <stdint.h>

#include <binder/Parcel.h>

#include "support/RecordingMonitorService.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const android::sp<RecordingMonitorService> service = new RecordingMonitorService;
    if (size == 0) {
        return 0;
    }
    const uint32_t pick = data[0];
    android::Parcel parcel;
    if (pick % 2 == 0) {
        parcel.writeInterfaceToken(android::IVyMediaMonitorService::descriptor);
    }
    parcel.write(data + 1, size - 1);
    android::Parcel reply;
    service->transact(pick / 2 % 24, parcel, &reply);
    service->Clear();
    return 0;
}
