// Host libdiag: the C entry points libtolven_diag calls on a phone. A modem answers them (the
// simulated one, or a real one on the serial port named by LIBDIAG_PORT), and the replies reach
// the caller's handlers on a delivery thread of the library's own, as they do on a phone.
#include <errno.h>

#include "state.h"

using libdiag_sim::Call;
using libdiag_sim::Delivery;
using libdiag_sim::Kind;
using libdiag_sim::Modem;
using libdiag_sim::Outcome;
using libdiag_sim::State;
using libdiag_sim::state;
using Lock = std::unique_lock<std::mutex>;

namespace {

intptr_t ptr_arg(const void* p) {
    return reinterpret_cast<intptr_t>(p);
}
template <typename F>
intptr_t fn_arg(F f) {
    return reinterpret_cast<intptr_t>(f);
}

// Checks shared by the DCI calls that need a connection and a registered client.
bool dci_refused(State& s, const Call& c, int client_id, Outcome* o) {
    if (s.take_programmed(c.name, o)) return true;
    if (!s.connected) {
        o->result = libdiag_sim::kDciNoConnection;
    } else if (s.clients.count(client_id) == 0) {
        o->result = libdiag_sim::kDciUnknownClient;
    } else {
        o->result = libdiag_sim::kDciOk;
        return false;
    }
    return true;
}

}  // namespace

extern "C" {

bool Diag_LSM_Init(uint8_t* env) {
    State& s = state();
    Call c = s.begin(__func__, {ptr_arg(env)});
    std::unique_ptr<Modem> old;  // a replaced port closes once the lock is released
    Lock lk(s.mu);
    Outcome o;
    if (s.take_programmed(c.name, &o)) {
        o.result = o.result != 0;
    } else if (s.answers_broken) {
        fprintf(stderr, "libdiag: not connecting: fix the LIBDIAG_SIM_ANSWERS file first\n");
    } else if (s.choose_modem(&old)) {
        s.connected = true;
        o.result = 1;
    }
    return s.finish(std::move(c), o, lk) != 0;
}

bool Diag_LSM_DeInit(void) {
    State& s = state();
    Call c = s.begin(__func__, {});
    std::unique_ptr<Modem> old;
    Lock lk(s.mu);
    Outcome o;
    if (!s.take_programmed(c.name, &o)) {
        s.connected = false;
        ++s.epoch;
        s.callbacks = {};
        s.queue.drop(0, lk);
        s.release_modem(&old);
        o.result = 1;
    }
    return s.finish(std::move(c), o, lk) != 0;
}

int diag_register_callback(diag_rsp_cb_t cb, void* context_data) {
    State& s = state();
    Call c = s.begin(__func__, {fn_arg(cb), ptr_arg(context_data)});
    Lock lk(s.mu);
    Outcome o;
    if (!s.take_programmed(c.name, &o)) s.callbacks[0] = {cb, context_data};
    return s.finish(std::move(c), o, lk);
}

int diag_register_remote_callback(diag_rsp_cb_t cb, int proc, void* context_data) {
    State& s = state();
    Call c = s.begin(__func__, {fn_arg(cb), proc, ptr_arg(context_data)});
    Lock lk(s.mu);
    Outcome o;
    if (s.take_programmed(c.name, &o)) {
    } else if (proc < 1 || !libdiag_sim::valid_proc(proc)) {
        o.result = -1;
    } else {
        s.callbacks[proc] = {cb, context_data};
    }
    return s.finish(std::move(c), o, lk);
}

int diag_has_remote_device(uint16_t* remote_mask) {
    State& s = state();
    Call c = s.begin(__func__, {});
    Lock lk(s.mu);
    Outcome o;
    if (s.take_programmed(c.name, &o)) {
    } else if (remote_mask == nullptr) {
        o.result = 0;
    } else {
        // a port reaches one processor only
        *remote_mask = s.on_port() ? 0 : s.settings.remote_mask;
        o.result = 1;
    }
    return s.finish(std::move(c), o, lk);
}

void diag_switch_logging(int requested_mode, char* dir_location) {
    State& s = state();
    Call c = s.begin(__func__, {requested_mode, ptr_arg(dir_location)});
    Lock lk(s.mu);
    Outcome o;
    if (!s.take_programmed(c.name, &o) && !s.modem->is_port()) s.logging_mode = requested_mode;
    o.result = 0;
    s.finish(std::move(c), o, lk);
}

int diag_callback_send_data(int proc, unsigned char* buf, int len) {
    State& s = state();
    Call c = s.begin(__func__, {proc, len});
    if (buf != nullptr && len > 0) c.data.assign(buf, buf + len);
    Lock lk(s.mu);
    Outcome o;
    if (s.take_programmed(c.name, &o)) {
    } else if (!s.connected || !libdiag_sim::valid_proc(proc) || c.data.empty() ||
               (proc != 0 && s.modem->is_port())) {
        o.result = -1;
    } else {
        Delivery to;
        to.kind = Kind::kCallback;
        to.epoch = s.epoch;
        to.proc = proc;
        o.result = s.send(proc, c.data, to) ? 0 : -1;
    }
    return s.finish(std::move(c), o, lk);
}

int diag_register_dci_client(int* client_id, uint16_t* list, int proc, void* os_params) {
    State& s = state();
    Call c = s.begin(__func__, {client_id ? *client_id : 0, list ? *list : 0, proc,
                                os_params ? *static_cast<int*>(os_params) : 0});
    Lock lk(s.mu);
    Outcome o;
    if (s.take_programmed(c.name, &o)) {
    } else if (!s.connected) {
        o.result = libdiag_sim::kDciNoConnection;
    } else if (client_id == nullptr) {
        o.result = libdiag_sim::kDciFailure;
    } else {
        *client_id = s.next_client++;
        s.clients[*client_id].proc = proc;
        o.result = libdiag_sim::kDciOk;
    }
    return s.finish(std::move(c), o, lk);
}

int diag_register_dci_signal_data(int client_id, int signal_type) {
    State& s = state();
    Call c = s.begin(__func__, {client_id, signal_type});
    Lock lk(s.mu);
    Outcome o;
    if (!dci_refused(s, c, client_id, &o)) s.clients[client_id].signal = signal_type;
    return s.finish(std::move(c), o, lk);
}

int diag_get_dci_support_list_proc(int proc, uint16_t* list) {
    State& s = state();
    Call c = s.begin(__func__, {proc});
    Lock lk(s.mu);
    Outcome o;
    if (s.take_programmed(c.name, &o)) {
    } else if (!s.connected) {
        o.result = libdiag_sim::kDciNoConnection;
    } else if (list == nullptr) {
        o.result = libdiag_sim::kDciFailure;
    } else {
        *list = s.settings.support_list;
        o.result = libdiag_sim::kDciOk;
    }
    return s.finish(std::move(c), o, lk);
}

int diag_register_dci_stream_proc(int client_id, diag_dci_stream_cb_t log_fn,
                                  diag_dci_stream_cb_t event_fn) {
    State& s = state();
    Call c = s.begin(__func__, {client_id, fn_arg(log_fn), fn_arg(event_fn)});
    Lock lk(s.mu);
    Outcome o;
    if (!dci_refused(s, c, client_id, &o)) {
        s.clients[client_id].log_fn = log_fn;
        s.clients[client_id].event_fn = event_fn;
    }
    return s.finish(std::move(c), o, lk);
}

int diag_send_dci_async_req(int client_id, unsigned char* buf, int bytes, unsigned char* rsp_ptr,
                            int rsp_len, diag_dci_rsp_cb_t fn, void* data_ptr) {
    State& s = state();
    Call c = s.begin(__func__, {client_id, bytes, rsp_len, fn_arg(fn), ptr_arg(data_ptr)});
    if (buf != nullptr && bytes > 0) c.data.assign(buf, buf + bytes);
    Lock lk(s.mu);
    Outcome o;
    if (dci_refused(s, c, client_id, &o)) {
    } else if (c.data.empty() || fn == nullptr) {
        o.result = libdiag_sim::kDciFailure;
    } else {
        Delivery to;
        to.kind = Kind::kDci;
        to.epoch = s.epoch;
        to.client = client_id;
        to.fn = fn;
        to.rsp_ptr = rsp_ptr;
        to.rsp_len = rsp_len;
        to.data_ptr = data_ptr;
        bool sent = s.send(s.clients[client_id].proc, c.data, to);
        o.result = sent ? libdiag_sim::kDciOk : libdiag_sim::kDciFailure;
    }
    return s.finish(std::move(c), o, lk);
}

int diag_release_dci_client(int* client_id) {
    State& s = state();
    int id = client_id ? *client_id : 0;
    Call c = s.begin(__func__, {id});
    Lock lk(s.mu);
    Outcome o;
    if (s.take_programmed(c.name, &o)) {
    } else if (s.clients.erase(id) == 0) {
        o.result = libdiag_sim::kDciUnknownClient;
    } else {
        s.queue.drop(id, lk);
        o.result = libdiag_sim::kDciOk;
    }
    return s.finish(std::move(c), o, lk);
}

}  // extern "C"
