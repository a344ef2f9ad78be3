// The TLS settings of the appliance's own services, for everything published over TLS. Any thread.
#pragma once

#include <string>

// Replace `*protocols` with the accepted versions and `*ciphers` with the accepted cipher suites, in the web server's
// syntax. Always return 0.
int get_ssl_protocols(std::string* protocols);
int get_ssl_cipher_suite(std::string* ciphers);

// 1 if a certificate chain is installed, else 0.
int has_ssl_chain_file();

inline constexpr char kCertificateFile[] = "/etc/stunnel/stunnel.pem";  // includes the key
inline constexpr char kChainFile[] = "/etc/stunnel/uca.pem";
