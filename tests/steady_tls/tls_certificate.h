// The certificate that tests show over TLS.
#pragma once

#include <openssl/ssl.h>

namespace wire {

// "rtmpcast test", on the curve P-256, valid from yesterday to tomorrow, signed with its own key.
void ShowCertificate(SSL_CTX *context);

} // namespace wire
