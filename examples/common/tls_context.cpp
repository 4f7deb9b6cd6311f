#include "tls_context.h"

#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>

#include <cerrno>
#include <cstring>

namespace {

// The first thing that went wrong, in OpenSSL's words; its list is empty afterwards.
std::string reason()
{
    const unsigned long code = ERR_get_error();
    ERR_clear_error();
    if (code == 0) {
        return "the peer has gone";
    }
    if (ERR_SYSTEM_ERROR(code)) {
        return strerror(ERR_GET_REASON(code));
    }
    if (ERR_GET_LIB(code) == ERR_LIB_PEM && ERR_GET_REASON(code) == PEM_R_NO_START_LINE) {
        return "there is none in it";
    }
    const char *text = ERR_reason_error_string(code);
    return text != nullptr ? text : "error " + std::to_string(code);
}

// Nobody is asked for a passphrase.
int noPassphrase(char *, int, int, void *)
{
    return -1;
}

} // namespace

TlsContext::TlsContext(const std::string &certificateFile, const std::string &keyFile)
    : context_(SSL_CTX_new(TLS_server_method()))
{
    std::string wrong;
    SSL_CTX_set_default_passwd_cb(context_, noPassphrase);
    if (SSL_CTX_set_min_proto_version(context_, TLS1_2_VERSION) != 1) {
        wrong = "TLS cannot be set up: " + reason();
    } else if (SSL_CTX_use_certificate_chain_file(context_, certificateFile.c_str()) != 1) {
        wrong = "--tls-cert: '" + certificateFile + "': " + reason();
    } else if (SSL_CTX_use_PrivateKey_file(context_, keyFile.c_str(), SSL_FILETYPE_PEM) != 1) {
        wrong = "--tls-key: '" + keyFile + "': " + reason() +
                " (wanted: the certificate's private key, PEM, no passphrase)";
    }
    if (!wrong.empty()) {
        SSL_CTX_free(context_);
        throw TlsError(wrong);
    }
    // No tickets: players do not resume, and some take a ticket for the end of the connection.
    SSL_CTX_set_options(context_, SSL_OP_NO_RENEGOTIATION | SSL_OP_NO_TICKET);
    (void)SSL_CTX_set_num_tickets(context_, 0); // always 1
    SSL_CTX_set_session_cache_mode(context_, SSL_SESS_CACHE_OFF);
}

TlsContext::~TlsContext()
{
    SSL_CTX_free(context_);
}

ssl_st *TlsContext::accept(int socket, std::string &why) const
{
    ERR_clear_error();
    SSL *tls = SSL_new(context_);
    if (tls != nullptr && SSL_set_fd(tls, socket) == 1 && SSL_accept(tls) == 1) {
        return tls;
    }
    why = reason();
    SSL_free(tls);
    return nullptr;
}

bool TlsContext::owesRenewal(ssl_st *tls)
{
    return SSL_get_key_update_type(tls) != SSL_KEY_UPDATE_NONE;
}

void TlsContext::end(ssl_st *tls)
{
    SSL_free(tls);
}
