// What the appliance's own TLS services offer; whatever publishes something over TLS offers the same. Any
// thread.
#pragma once

#include <string>

// Replace `*protocols` with the accepted versions and `*ciphers` with the accepted cipher suites, in the web
// server's syntax. Always 0.
int get_ssl_protocols(std::string* protocols);
int get_ssl_cipher_suite(std::string* ciphers);

// 1 when the owner has installed a certificate chain, else 0.
int has_ssl_chain_file();

inline constexpr char kCertificateFile[] = "/etc/stunnel/stunnel.pem";  // the key is in it
inline constexpr char kChainFile[] = "/etc/stunnel/uca.pem";
