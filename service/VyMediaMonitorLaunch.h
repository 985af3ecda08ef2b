// The one entry point of libvymediamonitorservice.so: the media server calls
// it once to create the monitor service and publish it as "Vymedia.monitor".
#ifndef VYMM_SERVICE_VY_MEDIA_MONITOR_LAUNCH_H
#define VYMM_SERVICE_VY_MEDIA_MONITOR_LAUNCH_H

#ifdef __cplusplus
extern "C" {
#endif

void launchVyMediaMonitorService(void);

#ifdef __cplusplus
}
#endif

#endif
