// Talks to a service byte by byte, as a client that may break every rule.
#pragma once

#include <json/value.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "service/directive.h"
#include "service/ks.h"
#include "support/guard.h"

struct Reply {
  int status;        // of the call
  std::string text;  // exactly as it came
  bool operator==(const Reply&) const = default;
  Json::Value json() const;
};

// One request to a service, as any client sends it; nullopt: no body at all.
Reply call(const std::string& service, const std::string& request,
           const std::optional<std::string>& body = std::nullopt, int extra_fd = -1);

// A listening socket that no process serves.
UniqueFd listen_at(const std::string& path);

UniqueFd memory_file(std::string_view content, unsigned flags = 0);

// From now on this process opens descriptors below this number only.
void limit_descriptors(int number);

// Waits until there is something to read, the end included.
bool readable(int fd, int timeout_ms = 10'000);

// The bytes of a record, which are well-formed as long as `data` fits.
std::string record_of(int type, int flag, std::string_view data);

// A client, or a service, by hand. Nothing it does waits longer than ten seconds.
class Peer {
 public:
  explicit Peer(const std::string& path);  // connects
  explicit Peer(int fd) : fd_(fd) {}       // takes over

  int fd() const { return fd_.get(); }
  void connect_to(const std::string& path) const;
  void leave() { fd_.reset(); }
  Peer& bytes(std::string_view bytes);
  Peer& record(int type, int flag = 0, std::string_view data = "") { return bytes(record_of(type, flag, data)); }
  Peer& request(std::string_view name, int flag = 0) { return record(KS_DIR_REQUEST, flag, name); }
  Peer& fds(const std::vector<int>& fds) { return message("x", fds); }  // one message of one byte with all of these
  Peer& message(std::string_view bytes, const std::vector<int>& fds, int flags = 0);
  // The type of the next record; 0 at the end of the connection, -1 when nothing comes.
  int next() const;
  // The types of all records to come, and 0 or -1.
  std::vector<int> rest() const;

 private:
  UniqueFd fd_;
};
