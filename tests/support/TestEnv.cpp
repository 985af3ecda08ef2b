#include "support/TestEnv.h"

#include <stdlib.h>
#include <unistd.h>

#include <filesystem>
#include <stdexcept>

#include <android-base/properties.h>

TempWorkDir::TempWorkDir() {
    const char* tmp = getenv("TMPDIR");
    std::string pattern = std::string(tmp != nullptr ? tmp : "/tmp") + "/vymm-test-XXXXXX";
    if (mkdtemp(pattern.data()) == nullptr) {
        throw std::runtime_error("mkdtemp failed for " + pattern);
    }
    mPath = pattern;
    mPrevious = std::filesystem::current_path();
    std::filesystem::current_path(mPath);
}

TempWorkDir::~TempWorkDir() {
    std::error_code ignored;
    std::filesystem::current_path(mPrevious, ignored);
    std::filesystem::remove_all(mPath, ignored);
}

ScopedProperty::ScopedProperty(const std::string& key, const std::string& value)
    : mKey(key), mPrevious(android::base::GetProperty(key, "")) {
    android::base::SetProperty(mKey, value);
}

ScopedProperty::~ScopedProperty() { android::base::SetProperty(mKey, mPrevious); }
