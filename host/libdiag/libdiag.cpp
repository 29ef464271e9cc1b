// Host libdiag: the C entry points libtolven_diag calls on a phone. A modem answers them (the
// simulated one, or a real one on the port named by LIBDIAG_PORT), and the replies reach the
// caller's handlers on a delivery thread of the library's own, as they do on a phone.
#include <errno.h>

#include "state.h"

using libdiag_sim::Call;
using libdiag_sim::Delivery;
using libdiag_sim::Kind;
using libdiag_sim::Outcome;
using libdiag_sim::Scope;
using libdiag_sim::State;
using libdiag_sim::state;

namespace {

intptr_t ptr_arg(const void* p) {
    return reinterpret_cast<intptr_t>(p);
}
template <typename F>
intptr_t fn_arg(F f) {
    return reinterpret_cast<intptr_t>(f);
}

// The DCI calls that need a connection and a registered client; true when that is missing.
bool dci_refused(State& s, int client_id, Outcome* o) {
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
    return s.call(__func__, {ptr_arg(env)}, nullptr, 0, [&](Scope& sc) {
        if (s.answers_broken) {
            fprintf(stderr,
                    "libdiag: not connecting: fix the LIBDIAG_SIM_ANSWERS file "
                    "first\n");
        } else {
            sc.out.result = s.connect(&sc.released);
        }
    }) != 0;
}

bool Diag_LSM_DeInit(void) {
    State& s = state();
    return s.call(__func__, {}, nullptr, 0, [&](Scope& sc) {
        s.disconnect(sc);
        sc.out.result = 1;
    }) != 0;
}

int diag_register_callback(diag_rsp_cb_t cb, void* context_data) {
    State& s = state();
    return s.call(__func__, {fn_arg(cb), ptr_arg(context_data)}, nullptr, 0, [&](Scope&) {
        s.callbacks[0] = {cb, context_data};
    });
}

int diag_register_remote_callback(diag_rsp_cb_t cb, int proc, void* context_data) {
    State& s = state();
    return s.call(__func__, {fn_arg(cb), proc, ptr_arg(context_data)}, nullptr, 0, [&](Scope& sc) {
        if (proc < 1 || !libdiag_sim::valid_proc(proc)) {
            sc.out.result = -1;
        } else {
            s.callbacks[proc] = {cb, context_data};
        }
    });
}

int diag_has_remote_device(uint16_t* remote_mask) {
    State& s = state();
    return s.call(__func__, {}, nullptr, 0, [&](Scope& sc) {
        if (remote_mask != nullptr) {
            // a port reaches one processor only
            *remote_mask = s.on_port || s.port_named() ? 0 : s.settings.remote_mask;
            sc.out.result = 1;
        }
    });
}

void diag_switch_logging(int requested_mode, char* dir_location) {
    State& s = state();
    s.call(__func__, {requested_mode, ptr_arg(dir_location)}, nullptr, 0, [&](Scope&) {
        if (!s.on_port) s.logging_mode = requested_mode;
    });
}

int diag_callback_send_data(int proc, unsigned char* buf, int len) {
    State& s = state();
    return s.call(__func__, {proc, len}, buf, len, [&](Scope& sc) {
        if (!s.connected || !libdiag_sim::valid_proc(proc) || sc.call.data.empty() ||
            (proc != 0 && s.on_port)) {
            sc.out.result = -1;
            return;
        }
        Delivery to;
        to.kind = Kind::kCallback;
        to.epoch = s.epoch;
        to.proc = proc;
        sc.out.result = s.send(proc, sc.call.data, to) ? 0 : -1;
    });
}

int diag_register_dci_client(int* client_id, uint16_t* list, int proc, void* os_params) {
    State& s = state();
    return s.call(__func__,
                  {client_id ? *client_id : 0, list ? *list : 0, proc,
                   os_params ? *static_cast<int*>(os_params) : 0},
                  nullptr, 0, [&](Scope& sc) {
                      if (!s.connected) {
                          sc.out.result = libdiag_sim::kDciNoConnection;
                      } else if (client_id == nullptr) {
                          sc.out.result = libdiag_sim::kDciFailure;
                      } else {
                          *client_id = s.next_client++;
                          s.clients[*client_id].proc = proc;
                          sc.out.result = libdiag_sim::kDciOk;
                      }
                  });
}

int diag_register_dci_signal_data(int client_id, int signal_type) {
    State& s = state();
    return s.call(__func__, {client_id, signal_type}, nullptr, 0, [&](Scope& sc) {
        if (!dci_refused(s, client_id, &sc.out)) s.clients[client_id].signal = signal_type;
    });
}

int diag_get_dci_support_list_proc(int proc, uint16_t* list) {
    State& s = state();
    return s.call(__func__, {proc}, nullptr, 0, [&](Scope& sc) {
        if (!s.connected) {
            sc.out.result = libdiag_sim::kDciNoConnection;
        } else if (list == nullptr) {
            sc.out.result = libdiag_sim::kDciFailure;
        } else {
            *list = s.settings.support_list;
            sc.out.result = libdiag_sim::kDciOk;
        }
    });
}

int diag_register_dci_stream_proc(int client_id, diag_dci_stream_cb_t log_fn,
                                  diag_dci_stream_cb_t event_fn) {
    State& s = state();
    return s.call(__func__, {client_id, fn_arg(log_fn), fn_arg(event_fn)}, nullptr, 0,
                  [&](Scope& sc) {
                      if (dci_refused(s, client_id, &sc.out)) return;
                      s.clients[client_id].log_fn = log_fn;
                      s.clients[client_id].event_fn = event_fn;
                  });
}

int diag_send_dci_async_req(int client_id, unsigned char* buf, int bytes, unsigned char* rsp_ptr,
                            int rsp_len, diag_dci_rsp_cb_t fn, void* data_ptr) {
    State& s = state();
    return s.call(__func__, {client_id, bytes, rsp_len, fn_arg(fn), ptr_arg(data_ptr)}, buf, bytes,
                  [&](Scope& sc) {
                      if (dci_refused(s, client_id, &sc.out)) return;
                      if (sc.call.data.empty() || fn == nullptr) {
                          sc.out.result = libdiag_sim::kDciFailure;
                          return;
                      }
                      Delivery to;
                      to.kind = Kind::kDci;
                      to.epoch = s.epoch;
                      to.client = client_id;
                      to.fn = fn;
                      to.rsp_ptr = rsp_ptr;
                      to.rsp_len = rsp_len;
                      to.data_ptr = data_ptr;
                      bool sent = s.send(s.clients[client_id].proc, sc.call.data, to);
                      sc.out.result = sent ? libdiag_sim::kDciOk : libdiag_sim::kDciFailure;
                  });
}

int diag_release_dci_client(int* client_id) {
    State& s = state();
    int id = client_id ? *client_id : 0;
    return s.call(__func__, {id}, nullptr, 0, [&](Scope& sc) {
        if (s.clients.count(id) == 0) {
            sc.out.result = libdiag_sim::kDciUnknownClient;
        } else {
            s.release_client(id, sc.lock);
            sc.out.result = libdiag_sim::kDciOk;
        }
    });
}

}  // extern "C"
