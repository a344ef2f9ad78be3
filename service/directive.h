// What crosses a framework socket: fixed records and descriptor-passing messages.
#pragma once

#include <chrono>
#include <cstdint>

inline constexpr int kDirectiveDataSize = 257;

enum ks_directive_type : std::uint8_t {
  KS_DIR_READY = 1,     // consumer -> producer: data = its index, u64
  KS_DIR_BUSY = 2,      // producer -> client, which is then closed
  KS_DIR_QUIT = 3,      // ks_stop -> consumer
  KS_DIR_PAUSED = 4,    // producer -> client, which is then closed
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

// A zeroed record of this type.
directive make_directive(ks_directive_type type);

// Sends one record without waiting and without SIGPIPE; true when all of it went out.
bool send_directive(int sockfd, const directive& record);
bool send_directive(int sockfd, ks_directive_type type);

// One read of one record from a socket that has been reported readable; false for anything shorter. Does not wait: an
// urgent byte makes a socket readable that has nothing to read. Descriptors that come with the record are discarded,
// and more than two of them spoil it.
bool read_directive(int sockfd, directive* record);

// Sends `fd` in a message of its own. True when it went out.
bool send_descriptor(int sockfd, int fd);
// The byte of such a message without a descriptor: the receiver of the record before it waits for one.
void send_no_descriptor(int sockfd);

// Receives one descriptor-passing message and returns its first descriptor, now the caller's; -1 when the message is
// short or carries none or more than two, or does not come in time. What else it carried is discarded.
//
// From a client: close-on-exec, and waited for until `deadline` only.
int receive_descriptor(int sockfd, std::chrono::steady_clock::time_point deadline);
// From the producer: inheritable as all connections are, and waited for until it comes or the producer is gone.
int receive_connection(int sockfd);
