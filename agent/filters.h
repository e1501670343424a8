// agent/filters.h: the transfer filter chain. A block of a file reaches the
// service through a chain of pull streams: a file source reads the block's
// byte range, an optional MD5 filter digests the plain bytes as they pass, a
// deflate filter compresses them (level 9) and an AES filter encrypts the
// compressed stream (AES-256-CBC, PKCS#7 padding) under the account key. The
// per-file backup builds one chain per block,
//   aes_filter_open(deflate_filter_open(md5_filter_open(
//       file_source_open(fd, offset, length, &counter), digest)), key)
// pulls chunks from its head until the head reports STREAM_END, and frees it
// with filter_chain_free. No stage runs ahead: each pulls from the one before
// it only when asked for bytes.
//
// Ownership: a stage owns the stage it pulls from. Its close() closes that
// stage, frees that stage's record, then releases its own engine and buffer;
// the record of the head is freed by whoever holds it. Records, engines and
// buffers come from xmalloc/xzalloc and go back with free(), so a stage
// written elsewhere can sit in a chain if its record is malloc'd too.
//
// Memory: the deflate and AES stages hold one 8192-byte input buffer each,
// the file source and the MD5 filter none, so a chain holds 16 KiB of
// buffers however large the block is.
#pragma once

#include <stdint.h>

// Read results below 0. A stage passes any of them from its upstream through
// unchanged; STREAM_FATAL is never produced here (the per-file backup ends
// the process on it).
enum : int {
  STREAM_END = -1,
  STREAM_ERROR = -2,
  STREAM_FATAL = -3,
};

struct filter_stream;

// Fills up to length bytes of buffer. Returns the count produced (at most
// length), 0 when asked for 0 bytes or where a stage notes it, or a result
// above. REQUIRES: length <= INT32_MAX.
using filter_read_fn = int32_t (*)(filter_stream* stream, uint8_t* buffer,
                                   uint32_t length);

// Closes and frees the upstream stage, then releases this stage's own state;
// the record itself stays for the caller to free. A second call does nothing.
using filter_close_fn = void (*)(filter_stream* stream);

// The record of every stage; a slot a stage has no use for stays 0.
struct filter_stream {
  filter_read_fn read;
  filter_close_fn close;
  filter_stream* upstream;  // owned; null for the file source
  // The upstream reported STREAM_END; for the file source and the MD5 filter,
  // this stage itself has ended.
  bool upstream_ended;
  // Stage state: the MD5 context, the z_stream or the cipher context; for the
  // file source, the descriptor (an integer, not a pointer).
  void* engine;
  uint32_t remaining;  // file source: bytes still to read
  bool finished;       // deflate and AES: all output produced
  uint32_t capacity;   // size of the input buffer (8192), else 0
  uint32_t held;       // bytes waiting at the front of the input buffer
  // The owned input buffer (deflate, AES); for the MD5 filter the caller's
  // 16-byte digest; for the file source the caller's byte counter or null.
  void* buffer;
};

// A stage that yields at most length bytes of fd from offset on. Seeks fd to
// offset (SEEK_SET) now, without checking: a bad offset shows as a short or
// failed read. Each read adds the bytes read to *counter when counter is not
// null. read: a positive count; STREAM_END once read(2) returns 0 (the range
// or the file is used up, and also when asked for 0 bytes: read(2) is still
// made, so a dead descriptor answers STREAM_ERROR); STREAM_ERROR when read(2)
// fails, with errno from it. close does nothing: fd belongs to the caller.
// Never returns null.
[[nodiscard]] filter_stream* file_source_open(int fd, int64_t offset,
                                              uint32_t length,
                                              uint64_t* counter);

// A pass-through stage that reads from upstream straight into the caller's
// buffer and digests the bytes there, in place. When upstream returns
// STREAM_END or STREAM_ERROR the MD5 is written to digest_out, so after a
// read error it covers exactly the bytes passed before it; the stage has
// then ended and later reads return STREAM_END. Results of upstream are
// returned unchanged, except that a failing digest call returns STREAM_ERROR.
// digest_out stays untouched when the chain is closed before its end.
// Returns null, having closed and freed upstream, when the digest cannot be
// set up; null when upstream is null. REQUIRES: digest_out holds 16 bytes
// and outlives the stage.
[[nodiscard]] filter_stream* md5_filter_open(filter_stream* upstream,
                                             uint8_t digest_out[16]);

// A stage that compresses upstream with zlib's deflate, level 9, default
// window and memory, zlib format. It fills the caller's buffer as far as the
// input allows before returning; an upstream that yields 0 bytes while
// nothing is buffered counts as STREAM_ERROR. After the last byte read
// returns STREAM_END. Returns null when upstream is null, or, having closed
// and freed upstream, when the compressor cannot be set up.
[[nodiscard]] filter_stream* deflate_filter_open(filter_stream* upstream);

// A stage that encrypts upstream with AES-256-CBC under key, PKCS#7 padding
// and an IV of 16 zero bytes for every chain: the service stores and compares
// blocks encrypted exactly so, so equal blocks must give equal bytes. A read
// never returns more than asked: it encrypts only what is sure to fit, so a
// read of 15 bytes or fewer returns 0 without output, and when 15 bytes or
// fewer of room are left at the end the padding block comes on a later read.
// Returns null when upstream is null, or, having closed and freed upstream,
// when the cipher cannot be set up. The key is copied into the cipher.
[[nodiscard]] filter_stream* aes_filter_open(filter_stream* upstream,
                                             const uint8_t key[32]);

// Closes head (and through it the whole chain) and frees its record. A null
// head is accepted.
void filter_chain_free(filter_stream* head);
