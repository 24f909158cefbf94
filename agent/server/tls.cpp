#include "agent/server/tls.h"

#include <fmt/format.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>

#include "agent/server/credentials.h"

namespace vnagent {
namespace {

void check(const boost::system::error_code& error, const std::string& file, const char* what) {
  if (error)
    throw BadCredentials(fmt::format("{}: cannot use the {}: {}", file, what, error.message()));
}

}  // namespace

std::shared_ptr<boost::asio::ssl::context> readTls(const TlsFiles& files) {
  namespace ssl = boost::asio::ssl;
  auto context = std::make_shared<ssl::context>(ssl::context::tls_server);
  SSL_CTX_set_min_proto_version(context->native_handle(), TLS1_2_VERSION);
  SSL_CTX_set_options(context->native_handle(), SSL_OP_NO_RENEGOTIATION);
  SSL_CTX_set_session_cache_mode(context->native_handle(), SSL_SESS_CACHE_OFF);
  // A connection that waits gives its buffers back.
  SSL_CTX_set_mode(context->native_handle(), SSL_MODE_RELEASE_BUFFERS);
  boost::system::error_code error;
  context->use_certificate_chain_file(files.certificate, error);
  check(error, files.certificate, "certificate");
  context->use_private_key_file(files.key, ssl::context::pem, error);
  check(error, files.key, "private key");
  if (SSL_CTX_check_private_key(context->native_handle()) != 1) {
    throw BadCredentials(files.key + ": is not the key of " + files.certificate);
  }
  if (files.clientCa.empty()) return context;
  context->load_verify_file(files.clientCa, error);
  check(error, files.clientCa, "authority of clients");
  SSL_CTX_set_client_CA_list(context->native_handle(),
                             SSL_load_client_CA_file(files.clientCa.c_str()));
  context->set_verify_mode(ssl::verify_peer, error);
  return context;
}

std::optional<std::string> peerCommonName(const SSL* ssl) {
  const std::unique_ptr<X509, decltype(&X509_free)> certificate(SSL_get1_peer_certificate(ssl),
                                                                &X509_free);
  if (!certificate || SSL_get_verify_result(ssl) != X509_V_OK) return std::nullopt;
  X509_NAME* subject = X509_get_subject_name(certificate.get());
  const int at = X509_NAME_get_index_by_NID(subject, NID_commonName, -1);
  if (at < 0) return std::nullopt;
  unsigned char* text = nullptr;
  const int size =
      ASN1_STRING_to_UTF8(&text, X509_NAME_ENTRY_get_data(X509_NAME_get_entry(subject, at)));
  if (size < 0) return std::nullopt;
  std::string name(reinterpret_cast<const char*>(text), static_cast<size_t>(size));
  OPENSSL_free(text);
  if (name.empty() || name.find('\0') != name.npos) return std::nullopt;
  return name;
}

}  // namespace vnagent
