// What ThreadSanitizer cannot judge inside the platform libraries, which are
// not instrumented. Linked into every program of a ThreadSanitizer build.
extern "C" const char* __tsan_default_suppressions() {
    // libutils hands an object to the thread that drops its last reference
    // (an sp<> of a RefBase, the shared buffer of a String8) through an
    // atomic count that TSan does not see, so every earlier use of the object
    // looks unordered with its destruction.
    return "race:android::RefBase::decStrong\n"
           "race:android::SharedBuffer::release\n";
}
