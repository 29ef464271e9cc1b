// Internal functions and process-wide state of libtolven_diag, for the library's own sources and
// its tests. None of this is exported from libtolven_diag.so.
#pragma once

#include <pthread.h>
#include <semaphore.h>
#include <stdint.h>

#include <atomic>

#include "tolven_diag.h"
#include "tolven_diag_platform.h"

// The response collected for the synchronous command in progress.
struct tolven_diag_rsp_buf {
    uint8_t* data;                // heap block, one byte larger than |length|, or null
    std::atomic<int32_t> length;  // kept after |data| is freed, until the next response
    uint8_t* prev;                // DCI handler only: the content before the last append
};

constexpr int kDiagCmdTime100msDefault = 30;
constexpr int kDiagChannelNameSize = 51;
constexpr int kDiagMaskNameSize = 101;

extern tolven_diag_rsp_buf g_qcril_diag_rsp_buf;
extern sem_t g_diag_rsp_sem;
extern pthread_mutex_t g_diag_cmd_lock;
extern pthread_mutex_t g_diag_worker_lock;
extern pthread_mutex_t g_qcril_diag_rsp_lock;
extern std::atomic<bool> g_diag_rsp_waiting;
extern std::atomic<bool> g_diag_rsp_timed_out;
extern std::atomic<int32_t> g_diag_cmd_time_100ms;
// Counts the synchronous commands handed to libdiag, counted up just before the send; a wait
// timer times only its own.
extern std::atomic<uint32_t> g_diag_cmd_seq;
// The g_diag_cmd_seq of the command in flight when the stored response was last written: a
// timer counts whole pieces as an answer only when they are its own command's. Under
// g_qcril_diag_rsp_lock.
extern uint32_t g_diag_rsp_stored_by;
// Wait timers and workers started and not yet ended. Counted up by their creator, down by the
// thread's body as it returns, so a test that calls a body on its own thread counts it up first.
extern std::atomic<int32_t> g_diag_live_threads;
extern int32_t g_diag_init_status;
extern pthread_t g_diag_wait_thread;
extern char g_diag_channel_name[kDiagChannelNameSize];
extern char g_diag_mask_name[kDiagMaskNameSize];

// Counted open of the diag connection; creates g_diag_rsp_sem on the first open.
void tolven_diag_init_with_result(void);
// Closes the connection whatever the count, and destroys g_diag_rsp_sem.
void tolven_diag_deinit_with_result(void);

// 0 when valid, 1 otherwise; the input check dumps a valid packet in hex.
int tolven_diag_comand_input_check(const uint8_t* data, int data_len);
int tolven_diag_comand_output_check(uint8_t* reply_buf, int* p_reply_len);
// Checks and dumps one response piece; |context_data| names its channel (null: -1).
int tolven_diag_cmd_response_check(const uint8_t* ptr, int len, const int* context_data);

// Starts the detached 100 ms tick timer that ends the wait of the command armed last; returns
// the result of the thread creation. The timer's argument is that command's g_diag_cmd_seq.
int tolven_diag_cmd_send_with_result_wait_create_thread(void);
void* tolven_diag_cmd_send_with_result_wait_thread_proc(void* arg);

// Callback mode.
void tolven_diag_register_callback(diag_rsp_cb_t callback);
int tolven_diag_cmd_response_by_callback(unsigned char* ptr, int len, void* context_data);
int tolven_diag_cmd_response_by_callback_no_handle(unsigned char* ptr, int len, void* context_data);

// Fire-and-forget: the dispatcher and the worker bodies, which take a WorkerRequest.
int tolven_diag_cmd_send_without_result_start_thread(const uint8_t* data, int data_len,
                                                     int diag_work_mode);
void* tolven_diag_cmd_send_without_result_by_callback_mode_thread_proc(void* param);
void* tolven_diag_cmd_send_without_result_by_dci_mode_thread_proc(void* param);

// Tests only: waits up to |limit_ms| for the library's own threads to end, then puts every
// process-wide variable back to its value at load (freeing the stored response). False when a
// thread was still running.
bool tolven_diag_reset_for_test(int limit_ms);
