/*
 * libtolven_diag: send one raw diag command packet to the modem.
 *
 * Every command function returns 0 on success and 1 on any failure (bad parameters, a diag
 * library call that failed, or a time-out). Failures are reported only through the log.
 */
#pragma once

#include <stdint.h>

#if defined(__GNUC__)
#define TOLVEN_DIAG_API __attribute__((visibility("default")))
#else
#define TOLVEN_DIAG_API
#endif

#ifdef __cplusplus
extern "C" {
#endif

/*
 * Synchronous sends. |data| holds |data_len| bytes (1 to 4096). |*reply_len| holds the capacity
 * of |reply_buf| on entry (above 0) and the number of reply bytes written on return, never more
 * than the capacity. The caller is blocked until the response is complete or |timeout_ms| ran
 * out, counted in ticks of 100 ms. Only one synchronous send runs at a time in a process; calls
 * may follow one another at once, in either mode, from any number of threads.
 *
 * On a time-out the result is 1 and |reply_buf| may still hold what arrived (DCI mode) or the
 * previous command's reply (callback mode); rely on the reply only when the result is 0.
 */

/* DCI mode; the library's main call. */
TOLVEN_DIAG_API int tolven_diag_cmd_send_with_result(const uint8_t* data, int data_len,
                                                     int timeout_ms, uint8_t* reply_buf,
                                                     int* reply_len);
/* DCI mode. A |timeout_ms| below 100 (also 0 or negative) waits one tick. */
TOLVEN_DIAG_API int tolven_diag_cmd_send_with_result_by_dci_mode(const uint8_t* data, int data_len,
                                                                 int timeout_ms, uint8_t* reply_buf,
                                                                 int* reply_len);
/* Callback mode. A |timeout_ms| outside 1..60000 is replaced by 3000. */
TOLVEN_DIAG_API int tolven_diag_cmd_send_with_result_by_callback_mode(const uint8_t* data,
                                                                      int data_len, int timeout_ms,
                                                                      uint8_t* reply_buf,
                                                                      int* reply_len);

/*
 * Fire-and-forget sends. The packet is copied and sent by a detached worker thread named
 * "TOLV DIAG"; the response is only logged. Returns 1 at once for a bad packet, otherwise 0
 * after holding the caller for one second.
 */
TOLVEN_DIAG_API int tolven_diag_cmd_send_without_result(const uint8_t* data, int data_len);
TOLVEN_DIAG_API int tolven_diag_cmd_send_without_result_by_dci_mode(const uint8_t* data,
                                                                    int data_len);
TOLVEN_DIAG_API int tolven_diag_cmd_send_without_result_by_callback_mode(const uint8_t* data,
                                                                         int data_len);

/*
 * DCI handlers handed to the diag library. The first three collect the reply of a synchronous
 * send and dump stream records; the _no_handle ones serve the fire-and-forget worker and only
 * log the length of what arrives.
 */
TOLVEN_DIAG_API void tolven_diag_cmd_response_by_dci(unsigned char* packet, int size, void* context);
TOLVEN_DIAG_API void tolven_diag_cmd_response_by_dci_log_stream(unsigned char* buffer, int size);
TOLVEN_DIAG_API void tolven_diag_cmd_response_by_dci_event_stream(unsigned char* buffer, int size);
TOLVEN_DIAG_API void tolven_diag_cmd_response_by_dci_no_handle(unsigned char* packet, int size,
                                                               void* context);
TOLVEN_DIAG_API void tolven_diag_cmd_response_by_dci_log_stream_no_handle(unsigned char* buffer,
                                                                          int size);
TOLVEN_DIAG_API void tolven_diag_cmd_response_by_dci_event_stream_no_handle(unsigned char* buffer,
                                                                            int size);

/* 1 when the diag library reports a remote modem (bit 0 of its remote mask), else 0. */
TOLVEN_DIAG_API int tolven_diag_is_mdm_supported(void);

/* Logs |len| bytes (1 to 4096) of |data| as one line of upper-case hex pairs. */
TOLVEN_DIAG_API void tolven_print_data_with_hex(const uint8_t* data, int len);
/*
 * "MSM" (0), "MDM" (1), "MDM_2" (2) or "Unknown". Returns a process-wide buffer that the next
 * call rewrites.
 */
TOLVEN_DIAG_API const char* tolven_print_diag_channel_name(int channel);
/*
 * The name of the lowest set bit among bits 0 to 5 (" APSS", " MPSS", " LPASS", " WCNSS",
 * " SENSORS", " WDSP", each with a leading blank), or "". Returns a process-wide buffer that the
 * next call rewrites.
 */
TOLVEN_DIAG_API const char* tolven_print_diag_mask_name(unsigned int mask);

/*
 * When the offline-log auto-start properties all name the same module and the feature is
 * enabled, replaces |output_dir_msm| (at least 500 bytes) with "/data/vendor/modem/diag_logs/"
 * followed by |date_info|, cut at 499 characters, and creates both directories. The first
 * |len_output_dir_msm| bytes are cleared first; the length does not bound the copy. Otherwise
 * the buffer is left as it is.
 */
TOLVEN_DIAG_API void diag_mdlog_update_output_dir_for_offline_log_auto_start(const char* date_info,
                                                                             char* output_dir_msm,
                                                                             int len_output_dir_msm);

/* For callers; the library itself never reads or writes it. */
TOLVEN_DIAG_API extern int diag_dci_error_type;

#ifdef __cplusplus
}
#endif
