// The platform libraries are not built with the thread sanitizer, so it cannot
// see the atomic reference counts by which they order the last release of an
// object after other threads' use of it (sp<> of a RefBase, the shared buffer
// of a String8). A destruction reached through one of them is not a race.
#if defined(__has_feature)
#if __has_feature(thread_sanitizer)
extern "C" const char* __tsan_default_suppressions() {
    return "race:android::RefBase::decStrong\n"
           "race:android::SharedBuffer::release\n";
}
#endif
#endif
