/* A program outside the project that uses the installed library: asks the modem for its
 * version and checks the answer. */
#include <stdio.h>

#include <tolven_diag.h>

int main(void) {
    const uint8_t request[] = {0x00};
    uint8_t reply[256];
    int reply_len = (int)sizeof(reply);
    int result = tolven_diag_cmd_send_with_result(request, (int)sizeof(request), 3000, reply,
                                                  &reply_len);
    printf("result %d, reply %d bytes, first %02X\n", result, reply_len,
           reply_len > 0 ? reply[0] : 0xFF);
    return result == 0 && reply_len == 55 && reply[0] == 0x00 ? 0 : 1;
}
