/*
 * The reporting library's C entry points. The service never links against
 * it: it loads "libvexel.so" at run time (report/VexelProxy.h).
 */
#ifndef VYMM_VEXEL_H
#define VYMM_VEXEL_H

#ifdef __cplusplus
extern "C" {
#endif

typedef struct VexelEventObj VexelEventObj;

VexelEventObj* vexel_create_eventobj(unsigned int eventId);
int vexel_set_param(VexelEventObj* obj, unsigned short paramId, long value);
int vexel_unset_param(VexelEventObj* obj, unsigned short paramId);
int vexel_set_time(VexelEventObj* obj, long long time);
int vexel_add_dynamic_path(VexelEventObj* obj, const char* path);
int vexel_add_and_del_dynamic_path(VexelEventObj* obj, const char* path);
int vexel_send_event(VexelEventObj* obj);
void vexel_destroy_eventobj(VexelEventObj* obj);
int vexel_set_param_integer_v2(VexelEventObj* obj, const char* name, long value);
int vexel_fill_array_param_integer_v2(VexelEventObj* obj, const char* name, long value);
int vexel_set_param_float_v2(VexelEventObj* obj, const char* name, float value);
int vexel_fill_array_param_float_v2(VexelEventObj* obj, const char* name, float value);
int vexel_set_param_string_v2(VexelEventObj* obj, const char* name, const char* value);
int vexel_fill_array_param_string_v2(VexelEventObj* obj, const char* name, const char* value);
int vexel_set_param_class_v2(VexelEventObj* obj, const char* name, VexelEventObj* value);
int vexel_fill_array_param_class_v2(VexelEventObj* obj, const char* name, VexelEventObj* value);

#ifdef __cplusplus
}
#endif

#endif
