// The library's one export: the media server calls it to start the service.
#define LOG_TAG "Vymedia_monitor"

#include "service/VyMediaMonitorLaunch.h"

#include <binder/IServiceManager.h>
#include <log/log.h>
#include <utils/String16.h>

#include "service/VyMediaMonitorService.h"

extern "C" __attribute__((visibility("default"))) void launchVyMediaMonitorService() {
    using namespace android;
    ALOGI("launchVyMediaMonitorService comes...");
    const sp<IServiceManager> serviceManager = defaultServiceManager();
    const sp<VyMediaMonitorService> service = new VyMediaMonitorService();
    // The service manager keeps the service; its result is not ours to act on.
    serviceManager->addService(String16("Vymedia.monitor"), service, false,
                               IServiceManager::DUMP_FLAG_PRIORITY_DEFAULT);
    ALOGI("VyMediaMonitorService launched...");
}
