// SPDX-License-Identifier: Apache-2.0
#include "examples/nats/Tls.h"

#include <openssl/bio.h>
#include <openssl/ssl.h>
#include <openssl/x509v3.h>

#include <memory>

namespace courier::examples::nats {

std::string whyTlsFails(std::string const& url, std::string const& ca) {
    auto const scheme = url.find("://");
    std::string server = scheme == std::string::npos ? url : url.substr(scheme + 3);
    server.erase(0, server.find('@') + 1);
    std::string const host = server.substr(0, server.rfind(':'));

    std::unique_ptr<SSL_CTX, decltype(&SSL_CTX_free)> const context(
        SSL_CTX_new(TLS_client_method()), SSL_CTX_free);
    if ((ca.empty() ? SSL_CTX_set_default_verify_paths(context.get())
                    : SSL_CTX_load_verify_locations(context.get(), ca.c_str(), nullptr)) != 1) {
        return "the CA certificates cannot be read";
    }
    SSL_CTX_set_verify(context.get(), SSL_VERIFY_PEER, nullptr);
    std::unique_ptr<BIO, decltype(&BIO_free_all)> plain(BIO_new_connect(server.c_str()),
                                                        BIO_free_all);
    // A server sends one line before it changes to TLS.
    if (plain == nullptr || BIO_do_connect(plain.get()) != 1) {
        return "the server does not answer";
    }
    for (char byte = '\0'; byte != '\n';) {
        if (BIO_read(plain.get(), &byte, 1) != 1) {
            return "the server closes the connection";
        }
    }
    std::unique_ptr<SSL, decltype(&SSL_free)> const tls(SSL_new(context.get()), SSL_free);
    BIO* const connected = plain.release();
    SSL_set_bio(tls.get(), connected, connected);
    X509_VERIFY_PARAM* const expected = SSL_get0_param(tls.get());
    if (X509_VERIFY_PARAM_set1_ip_asc(expected, host.c_str()) != 1) {
        X509_VERIFY_PARAM_set1_host(expected, host.c_str(), host.size());
    }
    if (SSL_connect(tls.get()) == 1) {
        return "the TLS handshake failed";
    }
    long const result = SSL_get_verify_result(tls.get());
    return result == X509_V_OK ? std::string("the server refuses the TLS handshake")
                               : std::string("the server's certificate is refused: ") +
                                     X509_verify_cert_error_string(result);
}

} // namespace courier::examples::nats
