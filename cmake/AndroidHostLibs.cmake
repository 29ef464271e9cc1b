# Android's host logging library, libbase and the zip reader, as Debian packages them
# (android-liblog-dev, android-libbase-dev, android-libziparchive-dev).
set(_android_dir /usr/lib/${CMAKE_LIBRARY_ARCHITECTURE}/android)
find_library(ANDROID_LIBLOG log PATHS ${_android_dir} NO_DEFAULT_PATH)
find_library(ANDROID_LIBBASE base PATHS ${_android_dir} NO_DEFAULT_PATH)
find_library(ANDROID_LIBZIPARCHIVE ziparchive PATHS ${_android_dir} NO_DEFAULT_PATH)
find_path(ANDROID_INCLUDE_DIR android/log.h PATHS /usr/include/android NO_DEFAULT_PATH)
if(NOT ANDROID_LIBLOG OR NOT ANDROID_LIBBASE OR NOT ANDROID_LIBZIPARCHIVE OR NOT ANDROID_INCLUDE_DIR)
    message(FATAL_ERROR "Android host libraries not found: apt-get install android-liblog-dev "
                        "android-libbase-dev android-libziparchive-dev")
endif()

add_library(android::log SHARED IMPORTED)
set_target_properties(android::log PROPERTIES IMPORTED_LOCATION ${ANDROID_LIBLOG}
                      INTERFACE_INCLUDE_DIRECTORIES ${ANDROID_INCLUDE_DIR})
add_library(android::base SHARED IMPORTED)
set_target_properties(android::base PROPERTIES IMPORTED_LOCATION ${ANDROID_LIBBASE}
                      INTERFACE_INCLUDE_DIRECTORIES ${ANDROID_INCLUDE_DIR}
                      INTERFACE_LINK_LIBRARIES android::log)
add_library(android::ziparchive SHARED IMPORTED)
set_target_properties(android::ziparchive PROPERTIES IMPORTED_LOCATION ${ANDROID_LIBZIPARCHIVE}
                      INTERFACE_INCLUDE_DIRECTORIES ${ANDROID_INCLUDE_DIR})
