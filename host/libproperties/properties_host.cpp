// Host implementation of the system-property calls of libcutils, for machines without a
// property service: values live in libbase's host property store for the life of the process.

#include "properties_host.h"

#include <stdio.h>
#include <string.h>

#include <mutex>
#include <string>

#include <android-base/properties.h>

#define EXPORT extern "C" __attribute__((visibility("default")))

namespace {
// libbase's host store is a plain map without a lock of its own.
std::mutex& g_lock = *new std::mutex;
}  // namespace

EXPORT int property_get(const char* key, char* value, const char* default_value) {
    if (value == nullptr) return -1;
    std::string found;
    if (key != nullptr) {
        std::lock_guard<std::mutex> lock(g_lock);
        found = android::base::GetProperty(key, "");
    }
    // An empty value counts as unset, as on the device.
    const char* text = !found.empty()             ? found.c_str()
                       : default_value != nullptr ? default_value
                                                  : "";
    int len = snprintf(value, PROPERTY_VALUE_MAX, "%s", text);
    return len < PROPERTY_VALUE_MAX ? len : PROPERTY_VALUE_MAX - 1;
}

EXPORT int property_set(const char* key, const char* value) {
    if (key == nullptr) return -1;
    std::lock_guard<std::mutex> lock(g_lock);
    android::base::SetProperty(key, value != nullptr ? value : "");
    return 0;
}
