#include "agent/rpc/tls_context.h"

namespace ssl = boost::asio::ssl;
using boost::system::error_code;

namespace {

std::shared_ptr<ssl::context> make_context(ssl::context::method method) {
    auto context = std::make_shared<ssl::context>(method);
    SSL_CTX_set_min_proto_version(context->native_handle(), TLS1_2_VERSION);
    SSL_CTX_set_options(context->native_handle(), SSL_OP_NO_RENEGOTIATION | SSL_OP_NO_COMPRESSION);
    // nobody is at a terminal to be asked
    context->set_password_callback([](size_t, ssl::context::password_purpose) { return ""; });
    return context;
}

} // namespace

std::shared_ptr<ssl::context> make_server_context(std::string const& certificate,
                                                  std::string const& private_key,
                                                  std::string& error) {
    std::shared_ptr<ssl::context> context = make_context(ssl::context::tls_server);
    error_code failure;
    context->use_certificate_chain_file(certificate, failure);
    if (failure) {
        error = "cannot use the certificate " + certificate + ", " + failure.message();
        return nullptr;
    }
    context->use_private_key_file(private_key, ssl::context::pem, failure);
    if (failure || SSL_CTX_check_private_key(context->native_handle()) != 1) {
        error = "cannot use the private key " + private_key + ", " +
                (failure ? failure.message() : "it is not that of the certificate " + certificate);
        return nullptr;
    }
    SSL_CTX_set_session_cache_mode(context->native_handle(), SSL_SESS_CACHE_OFF);
    return context;
}

std::shared_ptr<ssl::context> make_client_context(std::string const& ca_file, std::string& error) {
    std::shared_ptr<ssl::context> context = make_context(ssl::context::tls_client);
    error_code failure;
    if (ca_file.empty())
        context->set_default_verify_paths(failure);
    else
        context->load_verify_file(ca_file, failure);
    if (failure) {
        error = "cannot read the certificate authorities " + ca_file + ", " + failure.message();
        return nullptr;
    }
    context->set_verify_mode(ssl::verify_peer);
    return context;
}
