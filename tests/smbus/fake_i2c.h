// A fake I2C bus for the SMBus tests. The program defines ioctl and realpath itself (ELF
// interposition); calls not aimed at the fake go on to the real functions.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "support/faults.h"
#include "support/log_capture.h"

namespace velmar::test {

// One ioctl on the fake descriptor, decoded.
struct I2cCall {
    unsigned long request = 0;
    unsigned long slave = 0;          // I2C_SLAVE_FORCE
    uint8_t read_write = 0, command = 0; // I2C_SMBUS
    uint32_t size = 0;
    std::vector<uint8_t> written;     // I2C_SMBUS write: block[0] and the bytes it counts
    uint32_t nmsgs = 0;               // I2C_RDWR, first message:
    uint16_t addr = 0, flags = 0, len = 0;
};

// The device's answers; -1 fails a call without touching its buffers. A block read
// returns `length` as the count byte and then the bytes 1, 2, 3...
struct I2cDevice {
    int slave_rc = 0, write_rc = 0, length_rc = 0, block_rc = 1;
    uint8_t length = 0;
};

void fake_attach(int fd); // ioctls on `fd` go to a fresh fake device from now on
void fake_detach();
void fake_set(const I2cDevice &device);
std::vector<I2cCall> fake_calls();

void redirect_device_path(const std::string &path); // realpath("/dev/i2c-0"); "" ends it

} // namespace velmar::test
