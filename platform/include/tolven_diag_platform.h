/*
 * The platform functions that libtolven_diag imports. They are bound at load time from the
 * device's own libraries (libdiag, libtolven_utils, and the property store of libcutils); the
 * host build binds them to the stand-ins under host/, which include this header so that their
 * definitions cannot drift from what the library calls.
 */
#pragma once

#include <stdbool.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* libdiag */
typedef int (*diag_rsp_cb_t)(unsigned char* ptr, int len, void* context_data);
typedef void (*diag_dci_rsp_cb_t)(unsigned char* ptr, int len, void* data_ptr);
typedef void (*diag_dci_stream_cb_t)(unsigned char* ptr, int len);

bool Diag_LSM_Init(uint8_t* env);
bool Diag_LSM_DeInit(void);
int diag_register_callback(diag_rsp_cb_t cb, void* context_data);
int diag_register_remote_callback(diag_rsp_cb_t cb, int proc, void* context_data);
int diag_has_remote_device(uint16_t* remote_mask);
void diag_switch_logging(int requested_mode, char* dir_location);
int diag_callback_send_data(int proc, unsigned char* buf, int len);
int diag_register_dci_client(int* client_id, uint16_t* list, int proc, void* os_params);
int diag_register_dci_signal_data(int client_id, int signal_type);
int diag_get_dci_support_list_proc(int proc, uint16_t* list);
int diag_register_dci_stream_proc(int client_id, diag_dci_stream_cb_t log_fn,
                                  diag_dci_stream_cb_t event_fn);
int diag_send_dci_async_req(int client_id, unsigned char* buf, int bytes, unsigned char* rsp_ptr,
                            int rsp_len, diag_dci_rsp_cb_t fn, void* data_ptr);
int diag_release_dci_client(int* client_id);

/* libtolven_utils */
bool tolven_hal_get_logcat_print_flag(int level);
bool tolven_hal_get_shell_print_flag(int level);
int tolven_get_qcril_process_instance_id(void);
const char* tolven_get_current_pid_name(void);
void tolven_utils_syslog_dbg(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
void tolven_utils_syslog_err(const char* fmt, ...) __attribute__((format(printf, 1, 2)));

/* System properties. Fills |value| (at least PROPERTY_VALUE_MAX bytes) with the property or
 * with |default_value|, NUL-terminated; returns the length. */
#ifndef PROPERTY_VALUE_MAX
#define PROPERTY_VALUE_MAX 92
#endif
int property_get(const char* key, char* value, const char* default_value);
/* Sets |key| to |value|; returns 0, or a negative value on failure. Used by tolven-diag. */
int property_set(const char* key, const char* value);

#ifdef __cplusplus
}
#endif
