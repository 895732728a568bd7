/* SPDX-License-Identifier: Apache-2.0 */
/*
 * otp: OTP keys, the OTP user area and the board serial number. The sub-commands live in the
 * library; this program hands them its arguments, less its own name.
 */
#include <karst.h>

int main(int argc, char **argv) {
    return (int)otp_main((int32_t)(argc - 1), argv + 1);
}
