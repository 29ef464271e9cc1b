// Output directory of the on-device offline modem log, switched by four system properties.

#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/types.h>

#include "tolven_diag.h"
#include "tolven_diag_trace.h"

namespace {
constexpr int kPropBufSize = 500;
constexpr int kPathSize = 500;
constexpr char kLogRoot[] = "/data/vendor/modem/diag_logs/";
}  // namespace

extern "C" void diag_mdlog_update_output_dir_for_offline_log_auto_start(const char* date_info,
                                                                        char* output_dir_msm,
                                                                        int len_output_dir_msm) {
    char prop_switch[kPropBufSize] = {};
    char prop_trigger[kPropBufSize] = {};
    char prop_module[kPropBufSize] = {};
    char prop_enable[kPropBufSize] = {};
    property_get("persist.vendor.radio.diag_log_auto", prop_switch, "null");
    property_get("persist.vendor.radio.diag_log_trriger", prop_trigger, "null");
    property_get("debug.offline_log.module", prop_module, "null");
    property_get("debug.offline_log.enable", prop_enable, "false");
    TOLVEN_LOGD("-------- Offline log, switch: %s, prop_tr: %s, module: %s, enable: %s",
                prop_switch, prop_trigger, prop_module, prop_enable);

    // Switch, trigger and module must name the same module, and the feature must be enabled.
    if (strcmp(prop_switch, "null") == 0 || strcmp(prop_switch, prop_module) != 0 ||
        strcmp(prop_trigger, prop_module) != 0 || strcmp(prop_enable, "true") != 0) {
        return;
    }
    TOLVEN_LOGD("-------- Offline log auto-starting feature is started for %s", prop_switch);
    if (date_info == nullptr) {
        TOLVEN_LOGE("date_info is null");
        return;
    }
    if (output_dir_msm == nullptr) {
        TOLVEN_LOGE("output_dir_msm is null");
        return;
    }
    TOLVEN_LOGD("-------- Old output_dir: %s, len_output_dir_msm %d, date_info %s", output_dir_msm,
                len_output_dir_msm, date_info);
    // The length only bounds the clearing; a negative one clears nothing.
    if (len_output_dir_msm > 0) memset(output_dir_msm, 0, len_output_dir_msm);
    snprintf(output_dir_msm, kPathSize, "%s%s", kLogRoot, date_info);
    output_dir_msm[kPathSize - 1] = '\0';
    mkdir(kLogRoot, 0777);
    mkdir(output_dir_msm, 0777);
    TOLVEN_LOGD("-------- New output_dir: %s", output_dir_msm);
}
