// kfs_packet_recv on any bytes, in the clear (mode 1) and under AES (mode 3,
// a fixed key): the input
// goes into one end of a socket pair, whose write side is then shut, and
// packets are read from the other end until one fails with nothing left to
// read. Every other packet goes through the raw variant. A packet that
// parses must describe itself consistently.
#include <sys/ioctl.h>
#include <sys/socket.h>

#include "fuzz/fuzz_support.h"
#include "kfs/client/kfs.h"
#include "lib/scoped.h"

namespace {

kfs_message message;
// The key the aes-* seeds are encrypted with.
const uint8_t* const kKey = reinterpret_cast<const uint8_t*>(
    "KFS-fuzz\x00\x01\x02\x03\x04\x05\x06\x07\x08\x09\x0a\x0b\x0c\x0d\x0e"
    "\x0f\x10\x11\x12\x13\x14\x15\x16\x17");
uint8_t raw[KFS_CIPHER_TEXT_SIZE + 16];

void receive_all(kfs_packet_cipher* cipher, const uint8_t* data, size_t size) {
  int pair[2];
  fuzz_require(socketpair(AF_UNIX, SOCK_STREAM, 0, pair) == 0, "socketpair");
  unique_fd reader(pair[0]);
  unique_fd writer(pair[1]);
  // A fresh pair's buffer holds the largest input (128 KiB) at once.
  ssize_t put = size > 0 ? send(writer.get(), data, size, MSG_DONTWAIT) : 0;
  fuzz_require(put == static_cast<ssize_t>(size), "the input fits the pair");
  shutdown(writer.get(), SHUT_WR);
  for (int n = 0;; ++n) {
    uint32_t raw_length = 0;
    uint32_t rc = n % 2 == 0
                      ? kfs_packet_recv(reader.get(), cipher, &message)
                      : kfs_packet_recv_raw(reader.get(), cipher, &message, raw,
                                            sizeof raw, &raw_length);
    if (rc == 0) {
      fuzz_require(message.data_length <= KFS_MAX_BODY &&
                       (n % 2 == 0 || (raw_length > KFS_HEADER_SIZE &&
                                       raw_length <= KFS_HEADER_SIZE + 65536)),
                   "the body fits a record, the raw length is the packet's");
      continue;
    }
    fuzz_require(rc == ERR_SCKREAD, "a failed receive is ERR_SCKREAD");
    int left = 0;
    if (ioctl(reader.get(), FIONREAD, &left) != 0 || left == 0) {
      return;
    }
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static kfs_packet_cipher* plain = kfs_cipher_new(1, kKey, 0);
  static kfs_packet_cipher* aes = kfs_cipher_new(KFS_MODE_AES, kKey, 0);
  if (size <= 128 * 1024) {
    receive_all(plain, data, size);
    receive_all(aes, data, size);
  }
  return 0;
}
