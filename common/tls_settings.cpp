#include "common/tls_settings.h"

#include <unistd.h>

int get_ssl_protocols(std::string* protocols) {
  *protocols = "All -SSLv2 -SSLv3 -TLSv1 -TLSv1.1";
  return 0;
}

int get_ssl_cipher_suite(std::string* ciphers) {
  *ciphers = "EECDH+CHACHA20:EECDH+AES";
  return 0;
}

int has_ssl_chain_file() {
  return access(kChainFile, F_OK) == 0 ? 1 : 0;
}
