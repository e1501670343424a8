// tools/restore/block_decoder.h: a stored block's stream turned back into
// the file's plain data. The agent deflates each block (level 9) and
// encrypts the result with AES-256-CBC under the account key and a zero IV;
// every block starts both afresh, so each decodes on its own. The stream
// arrives in read-sized pieces and the plain data leaves in pieces, so a
// block of any size needs only the decoder's two fixed buffers.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <functional>
#include <memory>
#include <span>

#include <zlib.h>

#include "lib/scoped.h"

enum : int {
  BLOCK_OK = 0,
  BLOCK_ERR_CIPHER = -1,  // the padding is wrong: another key, or damage
  BLOCK_ERR_DATA = -2,    // not a deflate stream, or it ends early or late
  BLOCK_ERR_SINK = -3,    // the sink refused the data
  BLOCK_ERR_MEMORY = -4,  // the cipher or zlib context could not be made
};

// Takes a piece of plain data; false stops the decoding (BLOCK_ERR_SINK).
using block_sink = std::function<bool(std::span<const uint8_t>)>;

class block_decoder {
 public:
  explicit block_decoder(const uint8_t key[32]);
  ~block_decoder();
  block_decoder(const block_decoder&) = delete;
  block_decoder& operator=(const block_decoder&) = delete;

  // Starts a block. BLOCK_OK or BLOCK_ERR_MEMORY.
  int begin();
  // Decodes the next piece of the block's stream.
  int feed(std::span<const uint8_t> piece, const block_sink& sink);
  // Ends the block: the padding must be right and the deflate stream must
  // end exactly with the cipher text.
  int finish(const block_sink& sink);

 private:
  int inflate_some(const uint8_t* data, size_t n, const block_sink& sink);

  uint8_t key_[32];
  cipher_ctx_ptr cipher_;
  z_stream zlib_ = {};
  bool zlib_ready_ = false;
  bool stream_ended_ = false;
  std::unique_ptr<uint8_t[]> clear_;  // deciphered bytes of one piece
  std::unique_ptr<uint8_t[]> plain_;  // inflated bytes, handed to the sink
};

// Names a BLOCK_ERR_* code in words, for messages.
const char* block_error_text(int code);
