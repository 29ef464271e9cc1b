// Sends one raw diag command packet to the modem through libdiag, in callback mode or in DCI
// mode, and either hands the response back (synchronous send) or leaves it to a detached worker
// (fire-and-forget send).

#include <errno.h>
#include <pthread.h>
#include <semaphore.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include "tolven_diag.h"
#include "tolven_diag_internal.h"
#include "tolven_diag_trace.h"

namespace {

constexpr int kMaxCmdLen = 4096;
constexpr int kMaxRspPieceLen = 10240;
// A DCI piece of exactly this size announces that more of the response follows.
constexpr int kDciPieceLen = 4096;
constexpr int kHexTextSize = 3 * kMaxCmdLen + 1;

constexpr int kDciSuccess = 1001;
constexpr int kLocalProc = 0;
constexpr uint16_t kDciPeripheralMpss = 2;
constexpr int kDciSignalType = 18;
constexpr int kDciRspPktSize = 16384;
constexpr int kDiagLoggingCallbackMode = 6;
constexpr int kDiagLoggingUsbMode = 1;
constexpr int kCallbackTimeoutMinMs = 1;
constexpr int kCallbackTimeoutMaxMs = 60000;
constexpr int kCallbackTimeoutDefaultMs = 3000;
constexpr useconds_t kTickUs = 100000;
constexpr int kMsPerTick = 100;

constexpr const char kThreadName[] = "TOLV DIAG";

// The context values handed to libdiag with the callback registrations; libdiag hands them back
// with every response after the registration returned, so they need static storage.
int32_t g_diag_data_primary;
int32_t g_diag_data_remote;

// " %02X" of every byte value, so that the hex dump copies instead of formatting.
struct HexPairs {
    char text[256][3];
    constexpr HexPairs() : text() {
        constexpr char kDigits[] = "0123456789ABCDEF";
        for (int b = 0; b < 256; ++b) {
            text[b][0] = ' ';
            text[b][1] = kDigits[b >> 4];
            text[b][2] = kDigits[b & 0x0F];
        }
    }
};

// Dispatcher-to-worker block: the packet length in host order, then the packet, then one spare.
struct WorkerRequest {
    int32_t data_len;
    uint8_t data[];
};

// Frees the stored blocks; |length| stays. Caller holds g_qcril_diag_rsp_lock.
void free_stored_response() {
    free(g_qcril_diag_rsp_buf.prev);
    g_qcril_diag_rsp_buf.prev = nullptr;
    free(g_qcril_diag_rsp_buf.data);
    g_qcril_diag_rsp_buf.data = nullptr;
}

// Waits for the handler or the timer. Without a timer the command's own limit plus one tick is
// the deadline, and missing it is a time-out: the caller holds the command lock and must return.
void wait_for_response(bool timer_started, int ticks) {
    // The DCI client registers a real-time signal; a signal must not end the wait early.
    if (timer_started) {
        while (sem_wait(&g_diag_rsp_sem) != 0 && errno == EINTR) {
        }
        return;
    }
    timespec deadline;
    clock_gettime(CLOCK_MONOTONIC, &deadline);
    const long long wait_ns = (static_cast<long long>(ticks > 0 ? ticks : 0) + 1) * kTickUs * 1000;
    deadline.tv_sec += wait_ns / 1000000000;
    deadline.tv_nsec += wait_ns % 1000000000;
    if (deadline.tv_nsec >= 1000000000) {
        deadline.tv_sec++;
        deadline.tv_nsec -= 1000000000;
    }
    int rc;
    while ((rc = sem_clockwait(&g_diag_rsp_sem, CLOCK_MONOTONIC, &deadline)) != 0 &&
           errno == EINTR) {
    }
    if (rc != 0) g_diag_rsp_timed_out.store(true, std::memory_order_relaxed);
}

// Copies at most |capacity| bytes of the stored response to the caller; logs as |caller|. A DCI
// send empties the store afterwards (|free_after|).
void copy_out_response(const char* caller, uint8_t* reply_buf, int* reply_len, int capacity,
                       bool free_after) {
    pthread_mutex_lock(&g_qcril_diag_rsp_lock);
    int stored = g_qcril_diag_rsp_buf.length.load(std::memory_order_relaxed);
    int data_size = stored <= capacity ? stored : capacity;
    TOLVEN_LOGD_AS(caller,
                   "req end, data_size = %d, g_qcril_diag_rsp_buf.length = %d, reply_len = %d",
                   data_size, stored, capacity);
    *reply_len = data_size;
    // After a DCI send freed the block, |length| is stale and there is nothing to copy.
    if (data_size >= 1 && g_qcril_diag_rsp_buf.data != nullptr) {
        memcpy(reply_buf, g_qcril_diag_rsp_buf.data, data_size);
    }
    if (free_after) free_stored_response();
    pthread_mutex_unlock(&g_qcril_diag_rsp_lock);
}

// Numbers the command just before it goes to libdiag, which may answer before the send returns:
// from here on a stored response is this command's, and a timer of an earlier command sees that
// its command is over. A DCI send also empties the store (|fresh|), so that its reply is never
// appended to an older one.
void begin_command(bool fresh) {
    pthread_mutex_lock(&g_qcril_diag_rsp_lock);
    g_diag_cmd_seq.fetch_add(1, std::memory_order_relaxed);
    if (fresh) free_stored_response();
    pthread_mutex_unlock(&g_qcril_diag_rsp_lock);
}

// Records who wrote |length|. Caller holds g_qcril_diag_rsp_lock.
void store_length(int length) {
    g_qcril_diag_rsp_buf.length.store(length, std::memory_order_relaxed);
    g_diag_rsp_stored_by = g_diag_cmd_seq.load(std::memory_order_relaxed);
}

// Arming and disarming happen under the store's lock, where a timer makes its final decision.
void arm_wait(int ticks) {
    pthread_mutex_lock(&g_qcril_diag_rsp_lock);
    g_diag_rsp_waiting.store(true, std::memory_order_relaxed);
    g_diag_cmd_time_100ms.store(ticks, std::memory_order_relaxed);
    pthread_mutex_unlock(&g_qcril_diag_rsp_lock);
}

void disarm_wait() {
    pthread_mutex_lock(&g_qcril_diag_rsp_lock);
    g_diag_rsp_waiting.store(false, std::memory_order_relaxed);
    g_diag_cmd_time_100ms.store(kDiagCmdTime100msDefault, std::memory_order_relaxed);
    pthread_mutex_unlock(&g_qcril_diag_rsp_lock);
}

// Starts the timer and waits; the command is disarmed when this returns.
void wait_with_timer(int ticks) {
    bool timer_started = tolven_diag_cmd_send_with_result_wait_create_thread() == 0;
    wait_for_response(timer_started, ticks);
    disarm_wait();
}

// Result of a wait that has been copied out: 1 when the timer flagged a time-out.
int take_timed_out_result() {
    if (g_diag_rsp_timed_out.load(std::memory_order_relaxed)) {
        g_diag_rsp_timed_out.store(false, std::memory_order_relaxed);
        return 1;
    }
    return 0;
}

enum class DciSetup { kOk, kNoClient, kClientRegistered };

// The DCI client set-up shared by the synchronous send and the worker. Logs under |caller|'s
// name, as if written inline there.
DciSetup dci_client_setup(const char* caller, int* client_id, uint16_t* peripheral_list,
                          int* signal_type, diag_dci_stream_cb_t log_fn,
                          diag_dci_stream_cb_t event_fn) {
    // errno is read right after each call, before a log sink can change it.
    int err = diag_register_dci_client(client_id, peripheral_list, kLocalProc, signal_type);
    int saved_errno = errno;
    if (err != kDciSuccess) {
        TOLVEN_LOGD_AS(caller, "Could not register with DCI, err: %d, errno: %d ch:%d", err,
                       saved_errno, kLocalProc);
        return DciSetup::kNoClient;
    }
    TOLVEN_LOGD_AS(caller, "Successfully registered with DCI for ch:%d, client ID = %d", kLocalProc,
                   *client_id);

    err = diag_register_dci_signal_data(*client_id, __libc_current_sigrtmin() + 30);
    saved_errno = errno;
    if (err != kDciSuccess) {
        TOLVEN_LOGD_AS(caller,
                       "Could not register signal for DCI Data for ch:%d, err: %d, errno: %d",
                       kLocalProc, err, saved_errno);
        return DciSetup::kClientRegistered;
    }

    TOLVEN_LOGD_AS(caller, "DCI Status on Processors for ch%d:", kLocalProc);
    err = diag_get_dci_support_list_proc(kLocalProc, peripheral_list);
    saved_errno = errno;
    if (err != kDciSuccess) {
        TOLVEN_LOGD_AS(caller, "Could not get support list for ch %d, err: %d, errno: %d",
                       kLocalProc, err, saved_errno);
        return DciSetup::kClientRegistered;
    }
    // Informative only: a modem reported down still gets the command.
    if (*peripheral_list & kDciPeripheralMpss) {
        TOLVEN_LOGD_AS(caller, "MPSS on ch:%d: UP", kLocalProc);
    } else {
        TOLVEN_LOGD_AS(caller, "MPSS on ch:%d: DOWN", kLocalProc);
    }

    TOLVEN_LOGD_AS(caller, "Opening Data Stream, registering listeners for ch:%d", kLocalProc);
    err = diag_register_dci_stream_proc(*client_id, log_fn, event_fn);
    saved_errno = errno;
    if (err != kDciSuccess) {
        TOLVEN_LOGD_AS(caller, "Unable to register DCI stream for ch:%d, err: %d, errno: %d",
                       kLocalProc, err, saved_errno);
        return DciSetup::kClientRegistered;
    }
    TOLVEN_LOGD_AS(caller, "Sending Asynchronous Command for ch:%d", kLocalProc);
    return DciSetup::kOk;
}

// Releases the client after the caller closed the connection, which must come first.
void dci_client_release(const char* caller, int* client_id) {
    int err = diag_release_dci_client(client_id);
    int saved_errno = errno;
    TOLVEN_LOGD_AS(caller, "Releasing DCI connection, err: %d, errno: %d", err, saved_errno);
}

// The frame of both fire-and-forget workers: one command at a time under the worker lock, on a
// connection of the worker's own, and a linger after the unlock. Logs as |caller|.
void* run_worker(const char* caller, void* param, void (*send)(const char*, WorkerRequest*)) {
    TOLVEN_LOGD_AS(caller, "function entry ------------->");
    pthread_mutex_lock(&g_diag_worker_lock);
    auto* request = static_cast<WorkerRequest*>(param);
    if (request == nullptr) {
        TOLVEN_LOGD_AS(caller, "param is null");
    } else {
        TOLVEN_LOGD_AS(caller, "data_len = %d", request->data_len);
        if (!Diag_LSM_Init(nullptr)) {
            TOLVEN_LOGD_AS(caller, "LSM init failed");
        } else {
            send(caller, request);
        }
        free(request);
    }
    pthread_mutex_unlock(&g_diag_worker_lock);
    TOLVEN_LOGD_AS(caller, "will sleep 3s before quit");
    usleep(3000000);
    TOLVEN_LOGD_AS(caller, "function exit <-------------");
    g_diag_live_threads.fetch_sub(1, std::memory_order_release);
    return nullptr;
}

}  // namespace

// Shared state. Flags and counters read across threads without a lock are relaxed atomics; the
// semaphore hands the response over.
tolven_diag_rsp_buf g_qcril_diag_rsp_buf;
sem_t g_diag_rsp_sem;
pthread_mutex_t g_diag_cmd_lock = PTHREAD_MUTEX_INITIALIZER;
pthread_mutex_t g_diag_worker_lock = PTHREAD_MUTEX_INITIALIZER;
pthread_mutex_t g_qcril_diag_rsp_lock = PTHREAD_MUTEX_INITIALIZER;
std::atomic<bool> g_diag_rsp_waiting;
std::atomic<bool> g_diag_rsp_timed_out;
std::atomic<int32_t> g_diag_cmd_time_100ms{kDiagCmdTime100msDefault};
std::atomic<uint32_t> g_diag_cmd_seq;
uint32_t g_diag_rsp_stored_by;
std::atomic<int32_t> g_diag_live_threads;
int32_t g_diag_init_status;
pthread_t g_diag_wait_thread;
char g_diag_channel_name[kDiagChannelNameSize];
char g_diag_mask_name[kDiagMaskNameSize];

int diag_dci_error_type = 0;  // declared extern "C" in the public header

// ---- Hex dump and names ----

extern "C" void tolven_print_data_with_hex(const uint8_t* data, int len) {
    char text[kHexTextSize];
    if (data == nullptr) {
        TOLVEN_LOGD("print_data_with_hex, data is null");
        return;
    }
    if (len < 1 || len > kMaxCmdLen) {
        TOLVEN_LOGD("print_data_with_hex, invalid data len(%d)", len);
        return;
    }
    // One pass: "%02X" for the first byte, " %02X" for each further one.
    static constexpr HexPairs kPairs;
    memcpy(text, kPairs.text[data[0]] + 1, 2);
    char* out = text + 2;
    for (int i = 1; i < len; ++i, out += 3) memcpy(out, kPairs.text[data[i]], 3);
    *out = '\0';
    TOLVEN_LOGD("data hex show, len(%d), data: %s", len, text);
}

extern "C" const char* tolven_print_diag_channel_name(int channel) {
    memset(g_diag_channel_name, 0, sizeof(g_diag_channel_name));
    const char* name = "Unknown";
    switch (channel) {
        case 0:
            name = "MSM";
            break;
        case 1:
            name = "MDM";
            break;
        case 2:
            name = "MDM_2";
            break;
    }
    snprintf(g_diag_channel_name, sizeof(g_diag_channel_name), "%s", name);
    g_diag_channel_name[kDiagChannelNameSize - 1] = '\0';
    return g_diag_channel_name;
}

extern "C" const char* tolven_print_diag_mask_name(unsigned int mask) {
    static constexpr const char* kMaskNames[] = {" APSS",  " MPSS",    " LPASS",
                                                 " WCNSS", " SENSORS", " WDSP"};
    memset(g_diag_mask_name, 0, sizeof(g_diag_mask_name));
    for (unsigned bit = 0; bit < sizeof(kMaskNames) / sizeof(kMaskNames[0]); ++bit) {
        if (mask & (1u << bit)) {
            // Only the lowest set bit is named.
            snprintf(g_diag_mask_name, sizeof(g_diag_mask_name), "%s", kMaskNames[bit]);
            break;
        }
    }
    g_diag_mask_name[kDiagMaskNameSize - 1] = '\0';
    return g_diag_mask_name;
}

// ---- Diag connection ----

void tolven_diag_init_with_result(void) {
    TOLVEN_LOG_ENTRY();
    if (g_diag_init_status != 0) {
        TOLVEN_LOGD("diag init done, g_diag_init_status = %d", g_diag_init_status);
        g_diag_init_status++;
    } else if (Diag_LSM_Init(nullptr)) {
        sem_init(&g_diag_rsp_sem, 0, 0);
        g_diag_init_status = 1;
    } else {
        TOLVEN_LOGD("LSM init failed");
    }
    TOLVEN_LOG_EXIT();
}

void tolven_diag_deinit_with_result(void) {
    TOLVEN_LOG_ENTRY();
    // Closes whatever the count: the close does not count down.
    bool sem_exists = g_diag_init_status != 0;
    Diag_LSM_DeInit();
    g_diag_init_status = 0;
    if (sem_exists) sem_destroy(&g_diag_rsp_sem);
    TOLVEN_LOG_EXIT();
}

extern "C" int tolven_diag_is_mdm_supported(void) {
    uint16_t remote_mask = 0;
    if (diag_has_remote_device(&remote_mask) != 1) {
        int saved_errno = errno;
        TOLVEN_LOGD("diag_callback_sample: Unable to check for MDM support, err: %d", saved_errno);
        return 0;
    }
    TOLVEN_LOGD("remote_mask = %d", remote_mask);
    return remote_mask & 1;
}

// ---- Response wait timer ----

int tolven_diag_cmd_send_with_result_wait_create_thread(void) {
    TOLVEN_LOG_ENTRY();
    pthread_attr_t attr;
    pthread_attr_init(&attr);
    pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_DETACHED);
    // The timer is told which command it times; called under the command lock, after arming.
    void* cmd = reinterpret_cast<void*>(
            static_cast<uintptr_t>(g_diag_cmd_seq.load(std::memory_order_relaxed)));
    g_diag_live_threads.fetch_add(1, std::memory_order_relaxed);
    int conf = pthread_create(&g_diag_wait_thread, &attr,
                              tolven_diag_cmd_send_with_result_wait_thread_proc, cmd);
    if (conf == 0) {
        pthread_setname_np(g_diag_wait_thread, kThreadName);
    } else {
        g_diag_live_threads.fetch_sub(1, std::memory_order_relaxed);
    }
    pthread_attr_destroy(&attr);
    TOLVEN_LOGD("tolven daig is created, conf = %d", conf);
    TOLVEN_LOG_EXIT();
    return conf;
}

void* tolven_diag_cmd_send_with_result_wait_thread_proc(void* arg) {
    TOLVEN_LOG_ENTRY();
    const uint32_t cmd = static_cast<uint32_t>(reinterpret_cast<uintptr_t>(arg));
    int n = 0;
    bool waiting;
    int limit = 0;
    do {
        usleep(kTickUs);
        TOLVEN_LOGD("tolven_diag_cmd_send_with_result_wait_thread_proc, cnt_of_100ms = %d", n + 1);
        // A later command's flag and limit are not this timer's.
        waiting = g_diag_cmd_seq.load(std::memory_order_relaxed) == cmd &&
                  g_diag_rsp_waiting.load(std::memory_order_relaxed);
        n++;
        if (waiting) limit = g_diag_cmd_time_100ms.load(std::memory_order_relaxed);
    } while (waiting && n < limit);

    // Decided under the store's lock, where the sender disarms. A released command still gets
    // the timer's lines, but no post and no flag.
    pthread_mutex_lock(&g_qcril_diag_rsp_lock);
    const bool own = g_diag_cmd_seq.load(std::memory_order_relaxed) == cmd &&
                     g_diag_rsp_waiting.load(std::memory_order_relaxed);
    int len = g_qcril_diag_rsp_buf.length.load(std::memory_order_relaxed);
    const bool whole = len != 0 && (len & (kDciPieceLen - 1)) == 0;
    // A response made only of full pieces never ends itself: count it as answered, but only when
    // it answers this command; a length left by an earlier one answers nothing.
    if (whole && (!own || g_diag_rsp_stored_by == cmd)) {
        TOLVEN_LOGD("stop waiting, receive success, length is times of 4096");
        if (own) sem_post(&g_diag_rsp_sem);
    } else if (waiting && n >= limit) {
        TOLVEN_LOGD("stop waiting");
        if (own) {
            // Set before the post, so that the woken sender cannot miss it.
            g_diag_rsp_timed_out.store(true, std::memory_order_relaxed);
            sem_post(&g_diag_rsp_sem);
        }
    }
    pthread_mutex_unlock(&g_qcril_diag_rsp_lock);
    TOLVEN_LOG_EXIT();
    g_diag_live_threads.fetch_sub(1, std::memory_order_release);
    return nullptr;
}

// ---- Parameter and response checks ----

int tolven_diag_comand_input_check(const uint8_t* data, int data_len) {
    TOLVEN_LOGD("diag_comand, data_len = %d", data_len);
    if (data == nullptr) {
        TOLVEN_LOGD("data is null");
        return 1;
    }
    if (data_len < 1 || data_len > kMaxCmdLen) {
        TOLVEN_LOGD("Invalid input parameter, data_len = %d", data_len);
        return 1;
    }
    tolven_print_data_with_hex(data, data_len);
    return 0;
}

int tolven_diag_comand_output_check(uint8_t* reply_buf, int* p_reply_len) {
    if (reply_buf == nullptr) {
        TOLVEN_LOGD("reply_buf is null");
        return 1;
    }
    if (p_reply_len == nullptr) {
        TOLVEN_LOGD("p_reply_len is null");
        return 1;
    }
    int capacity = *p_reply_len;
    TOLVEN_LOGD("reply_len = %d", capacity);
    if (capacity > 0) return 0;
    TOLVEN_LOGD("Invalid output parameter, reply_len = %d", capacity);
    return 1;
}

int tolven_diag_cmd_response_check(const uint8_t* ptr, int len, const int* context_data) {
    int channel = -1;
    if (context_data == nullptr) {
        TOLVEN_LOGD("context_data is null");
    } else {
        channel = *context_data;
    }
    TOLVEN_LOGD("================ response from %d[%s], len = %d ========================", channel,
                tolven_print_diag_channel_name(channel), len);
    if (ptr == nullptr) {
        TOLVEN_LOGD("ptr is null");
        return 1;
    }
    if (len < 1 || len > kMaxRspPieceLen) {
        TOLVEN_LOGD("Invalid parameter, len = %d", len);
        return 1;
    }
    tolven_print_data_with_hex(ptr, len);
    return 0;
}

// ---- Callback mode ----

void tolven_diag_register_callback(diag_rsp_cb_t callback) {
    uint16_t remote_mask = 0;
    g_diag_data_primary = 0;
    diag_register_callback(callback, &g_diag_data_primary);
    diag_has_remote_device(&remote_mask);
    TOLVEN_LOGD(
            "register call back, g_diag_channel = [%d]%s, data_primary = %d, "
            "remote_mask = [%d]%s",
            0, tolven_print_diag_channel_name(0), g_diag_data_primary, remote_mask,
            tolven_print_diag_mask_name(remote_mask));
    if (remote_mask == 0) return;
    // Bit i stands for remote processor i + 1; all remote registrations share one slot.
    int proc = 1;
    for (unsigned mask = remote_mask; mask != 0; mask >>= 1, ++proc) {
        if (mask & 1u) {
            g_diag_data_remote = proc;
            TOLVEN_LOGD("register remote call back, data_remote = %d", g_diag_data_remote);
            diag_register_remote_callback(callback, g_diag_data_remote, &g_diag_data_remote);
        }
    }
}

int tolven_diag_cmd_response_by_callback(unsigned char* ptr, int len, void* context_data) {
    TOLVEN_LOG_ENTRY();
    int result = 1;
    if (tolven_diag_cmd_response_check(ptr, len, static_cast<const int*>(context_data)) != 0) {
        TOLVEN_LOGD("tolven_diag_cmd_response_check fail");
    } else {
        auto* block = static_cast<uint8_t*>(malloc(len + 1));
        if (block == nullptr) {
            TOLVEN_LOGE("Failed to allocate memory for ptr_out");
        } else {
            // A response replaces the stored one; it is never appended.
            memcpy(block, ptr, len);
            pthread_mutex_lock(&g_qcril_diag_rsp_lock);
            free(g_qcril_diag_rsp_buf.data);
            g_qcril_diag_rsp_buf.data = block;
            store_length(len);
            pthread_mutex_unlock(&g_qcril_diag_rsp_lock);
            TOLVEN_LOGD("callback, cmd_code = 0x%02x, data_size = %d", ptr[0], len);
            sem_post(&g_diag_rsp_sem);
            result = 0;
        }
    }
    TOLVEN_LOG_EXIT();
    return result;
}

int tolven_diag_cmd_response_by_callback_no_handle(unsigned char* /*ptr*/, int len,
                                                   void* /*context_data*/) {
    TOLVEN_LOGD("len = %d", len);
    return 0;
}

extern "C" int tolven_diag_cmd_send_with_result_by_callback_mode(const uint8_t* data, int data_len,
                                                                 int timeout_ms, uint8_t* reply_buf,
                                                                 int* reply_len) {
    TOLVEN_LOG_ENTRY();
    int result = 1;
    pthread_mutex_lock(&g_diag_cmd_lock);
    if (tolven_diag_comand_input_check(data, data_len) != 0) {
        TOLVEN_LOGD("tolven_diag_comand_param_check fail");
    } else if (tolven_diag_comand_output_check(reply_buf, reply_len) != 0) {
        TOLVEN_LOGD("tolven_diag_comand_output_check fail");
    } else {
        int capacity = *reply_len;
        tolven_diag_init_with_result();
        tolven_diag_register_callback(tolven_diag_cmd_response_by_callback);
        diag_switch_logging(kDiagLoggingCallbackMode, nullptr);
        begin_command(false);
        int ret_send = diag_callback_send_data(kLocalProc, const_cast<uint8_t*>(data), data_len);
        TOLVEN_LOGD("ret_send = %d, will wait callback", ret_send);
        if (ret_send != 0) {
            TOLVEN_LOGD("Fail to send diag cmd");
        } else {
            if (timeout_ms < kCallbackTimeoutMinMs || timeout_ms > kCallbackTimeoutMaxMs) {
                TOLVEN_LOGD("Time out is invalid, set default");
                timeout_ms = kCallbackTimeoutDefaultMs;
            }
            const int ticks = timeout_ms / kMsPerTick;
            arm_wait(ticks);
            TOLVEN_LOGD("Command time = %d * 100ms", ticks);
            wait_with_timer(ticks);
            copy_out_response(__func__, reply_buf, reply_len, capacity, false);
            result = take_timed_out_result();
        }
        diag_switch_logging(kDiagLoggingUsbMode, nullptr);
        tolven_diag_deinit_with_result();
    }
    pthread_mutex_unlock(&g_diag_cmd_lock);
    TOLVEN_LOG_EXIT();
    return result;
}

// Sends with the connection open; responses are only logged by the quiet handler.
static void callback_worker_send(const char* caller, WorkerRequest* request) {
    tolven_diag_register_callback(tolven_diag_cmd_response_by_callback_no_handle);
    diag_switch_logging(kDiagLoggingCallbackMode, nullptr);
    int ret_send = diag_callback_send_data(kLocalProc, request->data, request->data_len);
    TOLVEN_LOGD_AS(caller, "ret_send = %d, will wait callback", ret_send);
    // Answers get 200 ms; later ones are lost with the connection.
    usleep(200000);
    diag_switch_logging(kDiagLoggingUsbMode, nullptr);
    Diag_LSM_DeInit();
}

void* tolven_diag_cmd_send_without_result_by_callback_mode_thread_proc(void* param) {
    return run_worker(__func__, param, callback_worker_send);
}

// ---- DCI mode ----

extern "C" void tolven_diag_cmd_response_by_dci(unsigned char* packet, int size, void* context) {
    TOLVEN_LOG_ENTRY();
    pthread_mutex_lock(&g_qcril_diag_rsp_lock);
    if (tolven_diag_cmd_response_check(packet, size, static_cast<const int*>(context)) != 0) {
        TOLVEN_LOGD("tolven_diag_cmd_response_check fail");
        goto unlock;
    }
    if (g_qcril_diag_rsp_buf.data == nullptr) {
        auto* first = static_cast<uint8_t*>(malloc(size + 1));
        if (first == nullptr) {
            TOLVEN_LOGE("Failed to allocate memory for ptr_out_1");
            goto unlock;
        }
        memcpy(first, packet, size);
        g_qcril_diag_rsp_buf.data = first;
        store_length(size);
        TOLVEN_LOGD("response, cmd_code = 0x%02x, data_size = %d", packet[0], size);
    } else {
        int old_length = g_qcril_diag_rsp_buf.length.load(std::memory_order_relaxed);
        auto* copy = static_cast<uint8_t*>(malloc(old_length + 1));
        if (copy == nullptr) {
            TOLVEN_LOGE("Failed to allocate memory for ptr_out_2");
            goto unlock;
        }
        free(g_qcril_diag_rsp_buf.prev);
        g_qcril_diag_rsp_buf.prev = copy;
        memcpy(copy, g_qcril_diag_rsp_buf.data, old_length);
        auto* grown = static_cast<uint8_t*>(malloc(old_length + size + 1));
        if (grown == nullptr) {
            TOLVEN_LOGE("Failed to allocate memory for ptr_out_3");
            goto unlock;
        }
        free(g_qcril_diag_rsp_buf.data);
        g_qcril_diag_rsp_buf.data = grown;
        store_length(old_length + size);
        memcpy(grown, g_qcril_diag_rsp_buf.prev, old_length);
        memcpy(grown + old_length, packet, size);
        TOLVEN_LOGD("response, cmd_code = 0x%02x, data_size = %d", packet[0], size);
    }
    // A full piece means that more follows.
    if (size != kDciPieceLen) sem_post(&g_diag_rsp_sem);
unlock:
    pthread_mutex_unlock(&g_qcril_diag_rsp_lock);
    TOLVEN_LOG_EXIT();
}

extern "C" void tolven_diag_cmd_response_by_dci_log_stream(unsigned char* buffer, int size) {
    TOLVEN_LOG_ENTRY();
    tolven_print_data_with_hex(buffer, size);
    TOLVEN_LOG_EXIT();
}

extern "C" void tolven_diag_cmd_response_by_dci_event_stream(unsigned char* buffer, int size) {
    TOLVEN_LOG_ENTRY();
    tolven_print_data_with_hex(buffer, size);
    TOLVEN_LOG_EXIT();
}

extern "C" void tolven_diag_cmd_response_by_dci_no_handle(unsigned char* /*packet*/, int size,
                                                          void* /*context*/) {
    TOLVEN_LOGD("len = %d", size);
}

extern "C" void tolven_diag_cmd_response_by_dci_log_stream_no_handle(unsigned char* /*buffer*/,
                                                                     int size) {
    TOLVEN_LOGD("len = %d", size);
}

extern "C" void tolven_diag_cmd_response_by_dci_event_stream_no_handle(unsigned char* /*buffer*/,
                                                                       int size) {
    TOLVEN_LOGD("len = %d", size);
}

extern "C" int tolven_diag_cmd_send_with_result_by_dci_mode(const uint8_t* data, int data_len,
                                                            int timeout_ms, uint8_t* reply_buf,
                                                            int* reply_len) {
    TOLVEN_LOG_ENTRY();
    int result = 1;
    int client_id = 0;
    uint16_t peripheral_list = kDciPeripheralMpss;
    int signal_type = kDciSignalType;
    pthread_mutex_lock(&g_diag_cmd_lock);
    if (tolven_diag_comand_input_check(data, data_len) != 0) {
        TOLVEN_LOGD("tolven_diag_comand_param_check fail");
    } else if (tolven_diag_comand_output_check(reply_buf, reply_len) != 0) {
        TOLVEN_LOGD("tolven_diag_comand_output_check fail");
    } else {
        int capacity = *reply_len;
        tolven_diag_init_with_result();
        auto* rsp_pkt = static_cast<unsigned char*>(malloc(kDciRspPktSize));
        if (rsp_pkt == nullptr) {
            int saved_errno = errno;
            TOLVEN_LOGD("Unable to allocate memory for DCI rsp pkt, errno: %d", saved_errno);
            tolven_diag_deinit_with_result();
        } else {
            DciSetup setup = dci_client_setup(__func__, &client_id, &peripheral_list, &signal_type,
                                              tolven_diag_cmd_response_by_dci_log_stream,
                                              tolven_diag_cmd_response_by_dci_event_stream);
            if (setup == DciSetup::kNoClient) {
                tolven_diag_deinit_with_result();
            } else {
                if (setup == DciSetup::kOk) {
                    begin_command(true);
                    int err = diag_send_dci_async_req(client_id, const_cast<uint8_t*>(data),
                                                      data_len, rsp_pkt, kDciRspPktSize,
                                                      tolven_diag_cmd_response_by_dci, nullptr);
                    if (err != kDciSuccess) {
                        TOLVEN_LOGD("Error sending SEND_REQUEST_ASYNC to peripheral %d for ch:%d",
                                    err, kLocalProc);
                    } else {
                        // No range test here: below 100 ms the timer still waits one tick.
                        const int ticks = timeout_ms / kMsPerTick;
                        arm_wait(ticks);
                        TOLVEN_LOGD("Dci Command time = %d", ticks);
                        wait_with_timer(ticks);
                        copy_out_response(__func__, reply_buf, reply_len, capacity, true);
                        result = take_timed_out_result();
                    }
                }
                tolven_diag_deinit_with_result();
                dci_client_release(__func__, &client_id);
            }
            free(rsp_pkt);
        }
    }
    pthread_mutex_unlock(&g_diag_cmd_lock);
    TOLVEN_LOG_EXIT();
    return result;
}

// Sends over a client of its own with the connection open, and closes it after one second.
static void dci_worker_send(const char* caller, WorkerRequest* request) {
    uint16_t peripheral_list = kDciPeripheralMpss;
    int signal_type = kDciSignalType;
    int client_id = 0;
    auto* rsp_pkt = static_cast<unsigned char*>(malloc(kDciRspPktSize));
    DciSetup setup = DciSetup::kNoClient;
    if (rsp_pkt == nullptr) {
        int saved_errno = errno;
        TOLVEN_LOGD_AS(caller, "Unable to allocate memory for DCI rsp pkt, errno: %d", saved_errno);
    } else {
        setup = dci_client_setup(caller, &client_id, &peripheral_list, &signal_type,
                                 tolven_diag_cmd_response_by_dci_log_stream_no_handle,
                                 tolven_diag_cmd_response_by_dci_event_stream_no_handle);
    }
    if (setup == DciSetup::kOk) {
        int err = diag_send_dci_async_req(client_id, request->data, request->data_len, rsp_pkt,
                                          kDciRspPktSize, tolven_diag_cmd_response_by_dci_no_handle,
                                          nullptr);
        if (err == kDciSuccess) {
            // The only time the modem gets to answer.
            sleep(1);
        } else {
            TOLVEN_LOGD_AS(caller, "Error sending SEND_REQUEST_ASYNC to peripheral %d for ch:%d",
                           err, kLocalProc);
        }
    }
    // The connection is closed before the client is released.
    Diag_LSM_DeInit();
    if (setup != DciSetup::kNoClient) dci_client_release(caller, &client_id);
    free(rsp_pkt);
}

void* tolven_diag_cmd_send_without_result_by_dci_mode_thread_proc(void* param) {
    return run_worker(__func__, param, dci_worker_send);
}

// ---- Public entry points ----

int tolven_diag_cmd_send_without_result_start_thread(const uint8_t* data, int data_len,
                                                     int diag_work_mode) {
    TOLVEN_LOG_ENTRY();
    int result = 1;
    if (tolven_diag_comand_input_check(data, data_len) != 0) {
        TOLVEN_LOGD("tolven_diag_comand_input_check fail");
    } else {
        auto* request = static_cast<WorkerRequest*>(malloc(data_len + 5));
        if (request == nullptr) {
            TOLVEN_LOGE("Failed to allocate memory for ptr_out");
        } else {
            request->data_len = data_len;
            memcpy(request->data, data, data_len);
            pthread_t thread = 0;
            pthread_attr_t attr;
            pthread_attr_init(&attr);
            pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_DETACHED);
            g_diag_live_threads.fetch_add(1, std::memory_order_relaxed);
            int conf = pthread_create(
                    &thread, &attr,
                    diag_work_mode == 0
                            ? tolven_diag_cmd_send_without_result_by_callback_mode_thread_proc
                            : tolven_diag_cmd_send_without_result_by_dci_mode_thread_proc,
                    request);
            if (conf == 0) pthread_setname_np(thread, kThreadName);
            pthread_attr_destroy(&attr);
            TOLVEN_LOGD("tolven daig is created, conf = %d, diag_work_mode = %d", conf,
                        diag_work_mode);
            if (conf != 0) {
                // Nobody else will free it.
                free(request);
                g_diag_live_threads.fetch_sub(1, std::memory_order_relaxed);
            }
            TOLVEN_LOGD("Will wait 1s, wait_cnt = %d(max:%d)", 0, 0);
            usleep(1000000);
            result = 0;
        }
    }
    TOLVEN_LOG_EXIT();
    return result;
}

extern "C" int tolven_diag_cmd_send_with_result(const uint8_t* data, int data_len, int timeout_ms,
                                                uint8_t* reply_buf, int* reply_len) {
    return tolven_diag_cmd_send_with_result_by_dci_mode(data, data_len, timeout_ms, reply_buf,
                                                        reply_len);
}

extern "C" int tolven_diag_cmd_send_without_result(const uint8_t* data, int data_len) {
    return tolven_diag_cmd_send_without_result_start_thread(data, data_len, 1);
}

extern "C" int tolven_diag_cmd_send_without_result_by_dci_mode(const uint8_t* data, int data_len) {
    return tolven_diag_cmd_send_without_result_start_thread(data, data_len, 1);
}

extern "C" int tolven_diag_cmd_send_without_result_by_callback_mode(const uint8_t* data,
                                                                    int data_len) {
    return tolven_diag_cmd_send_without_result_start_thread(data, data_len, 0);
}

// ---- For tests ----

bool tolven_diag_reset_for_test(int limit_ms) {
    bool idle = false;
    for (int waited_ms = 0;; waited_ms += 10) {
        idle = g_diag_live_threads.load(std::memory_order_acquire) == 0;
        if (idle || waited_ms >= limit_ms) break;
        usleep(10000);
    }
    pthread_mutex_lock(&g_qcril_diag_rsp_lock);
    free_stored_response();
    g_qcril_diag_rsp_buf.length.store(0, std::memory_order_relaxed);
    g_diag_rsp_stored_by = 0;
    // g_diag_cmd_seq keeps counting, so that no timer still running can match a new command.
    g_diag_rsp_waiting.store(false, std::memory_order_relaxed);
    g_diag_rsp_timed_out.store(false, std::memory_order_relaxed);
    g_diag_cmd_time_100ms.store(kDiagCmdTime100msDefault, std::memory_order_relaxed);
    pthread_mutex_unlock(&g_qcril_diag_rsp_lock);
    if (g_diag_init_status != 0) sem_destroy(&g_diag_rsp_sem);
    g_diag_init_status = 0;
    g_diag_wait_thread = 0;
    memset(g_diag_channel_name, 0, sizeof(g_diag_channel_name));
    memset(g_diag_mask_name, 0, sizeof(g_diag_mask_name));
    g_diag_data_primary = 0;
    g_diag_data_remote = 0;
    return idle;
}
