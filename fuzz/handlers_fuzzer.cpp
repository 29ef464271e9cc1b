// The DCI and callback response handlers fed any pieces (sizes -1 to 20,000, missing pointers and
// contexts), checked against a model of the response store: DCI pieces are appended and post
// unless they are exactly 4096 bytes, callback responses replace and post, refused ones change
// nothing; the stream and quiet handlers store nothing.

#include <semaphore.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <vector>

#include <fuzzer/FuzzedDataProvider.h>

#include "contract.h"
#include "log_capture.h"
#include "tolven_diag_internal.h"

namespace {

using Bytes = std::vector<uint8_t>;

int posts() {
    int value = -1;
    sem_getvalue(&g_diag_rsp_sem, &value);
    return value;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    fuzz_log::set_levels((1u << 1) | (1u << 4));
    sem_init(&g_diag_rsp_sem, 0, 0);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* input, size_t size) {
    FuzzedDataProvider in(input, size);
    Bytes model;          // what the store holds
    bool stored = false;  // |data| set
    int model_posts = 0;
    int channel = 0;

    for (int step = 0; step < 48 && in.remaining_bytes() > 0; ++step) {
        const int op = in.ConsumeIntegralInRange<int>(0, 5);
        int len = in.ConsumeIntegralInRange<int>(-1, 20000);
        // Sizes around the limits come up more often than a uniform pick would make them.
        switch (in.ConsumeIntegralInRange<int>(0, 7)) {
            case 0:
                len = 4096;
                break;
            case 1:
                len = 10240 + in.ConsumeIntegralInRange<int>(-1, 1);
                break;
            default:
                break;
        }
        const bool null_ptr = in.ConsumeIntegralInRange<int>(0, 15) == 0;
        const bool null_ctx = in.ConsumeBool();
        channel = in.ConsumeIntegralInRange<int>(-2, 3);
        Bytes piece(len > 0 ? len : 0);
        for (size_t i = 0; i < piece.size(); ++i) piece[i] = static_cast<uint8_t>(step * 31 + i);
        unsigned char* ptr = null_ptr ? nullptr : piece.data();
        void* ctx = null_ctx ? nullptr : &channel;
        const bool accepted = !null_ptr && len >= 1 && len <= 10240;

        switch (op) {
            case 0:
            case 1:
                tolven_diag_cmd_response_by_dci(ptr, len, ctx);
                if (accepted) {
                    if (!stored) model.clear();
                    model.insert(model.end(), piece.begin(), piece.end());
                    stored = true;
                    if (len != 4096) model_posts++;
                }
                break;
            case 2:
                require(tolven_diag_cmd_response_by_callback(ptr, len, ctx) == (accepted ? 0 : 1),
                        "callback handler result");
                if (accepted) {
                    model = piece;
                    stored = true;
                    model_posts++;
                }
                break;
            case 3:
                tolven_diag_cmd_response_by_dci_log_stream(ptr, len);
                tolven_diag_cmd_response_by_dci_event_stream(ptr, len);
                break;
            case 4:
                tolven_diag_cmd_response_by_dci_no_handle(ptr, len, ctx);
                tolven_diag_cmd_response_by_dci_log_stream_no_handle(ptr, len);
                tolven_diag_cmd_response_by_dci_event_stream_no_handle(ptr, len);
                require(tolven_diag_cmd_response_by_callback_no_handle(ptr, len, ctx) == 0,
                        "quiet handler result");
                break;
            case 5:
                // The end of a DCI send: the store is emptied, its length kept.
                free(g_qcril_diag_rsp_buf.prev);
                free(g_qcril_diag_rsp_buf.data);
                g_qcril_diag_rsp_buf.prev = nullptr;
                g_qcril_diag_rsp_buf.data = nullptr;
                stored = false;
                break;
        }
        require((g_qcril_diag_rsp_buf.data != nullptr) == stored, "store set");
        if (stored) {
            require(g_qcril_diag_rsp_buf.length == static_cast<int>(model.size()), "length");
            require(memcmp(g_qcril_diag_rsp_buf.data, model.data(), model.size()) == 0, "bytes");
        }
        require(posts() == model_posts, "posts");
    }

    tolven_diag_reset_for_test(0);
    sem_destroy(&g_diag_rsp_sem);
    sem_init(&g_diag_rsp_sem, 0, 0);
    return 0;
}
