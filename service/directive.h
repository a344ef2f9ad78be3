// The wire format of a framework socket: fixed-size records and descriptor-passing messages.
#pragma once

#include <chrono>
#include <cstdint>

inline constexpr int kDirectiveDataSize = 257;

enum ks_directive_type : std::uint8_t {
  KS_DIR_READY = 1,     // consumer -> producer: data = its index, u64
  KS_DIR_BUSY = 2,      // producer -> client; the producer then closes the connection
  KS_DIR_QUIT = 3,      // ks_stop -> consumer
  KS_DIR_PAUSED = 4,    // producer -> client; the producer then closes the connection
  KS_DIR_REFUSED = 5,   // understood by clients, never sent
  KS_DIR_TRANSFER = 6,  // producer -> consumer: data = the client's socket number, i32; the consumer echoes it
  KS_DIR_ASK = 7,       // consumer -> client: send your request
  KS_DIR_REQUEST = 8,   // client -> consumer: data = request name; then one or two descriptors
  KS_DIR_DONE = 9,      // service -> client: the reply is in the memory file
};

// The only record on a framework socket. Numbers in `data` are in host byte order; unused bytes are zero.
struct directive {
  std::uint8_t type;
  std::uint8_t flag;  // KS_DIR_REQUEST: bit 0 says that a second descriptor follows
  std::uint8_t data[kDirectiveDataSize];
};
static_assert(sizeof(directive) == 259 && alignof(directive) == 1, "the wire layout");

// Returns a record of this type with everything else zero.
directive make_directive(ks_directive_type type);

// Sends one record without waiting and without SIGPIPE; true when the whole record was sent.
bool send_directive(int sockfd, const directive& record);
bool send_directive(int sockfd, ks_directive_type type);

// Reads one record, in one read, from a socket that was reported readable; false if less arrives. Never waits: an
// urgent byte makes a socket readable although there is nothing to read. Descriptors attached to the record are
// discarded, and more than two of them make it invalid.
bool read_directive(int sockfd, directive* record);

// Sends `fd` in its own message. True when it was sent.
bool send_descriptor(int sockfd, int fd);
// Sends such a message without a descriptor. The receiver of the preceding record waits for a message.
void send_no_descriptor(int sockfd);

// Receives one descriptor-passing message and returns its first descriptor, which the caller then owns. Discards all
// others. Returns -1 when the message is empty, carries no descriptor or more than two, or does not arrive in time.
//
// From a client: the descriptor is close-on-exec, and the wait ends at `deadline`.
int receive_descriptor(int sockfd, std::chrono::steady_clock::time_point deadline);
// From the producer: the descriptor is inheritable, as all connections are, and the wait ends only when it arrives or
// the producer is gone.
int receive_connection(int sockfd);
