// A server that answers each request with a constant: what the HTTP library, the sockets and the
// threads cost by themselves, which is the limit of any agent that is made of them.
//
//   bare_server SOCKET BYTES [THREADS]
//
// It listens on a Unix socket, and its answers have a body of BYTES. Threads and strands are those
// of the agent's network.
#include <cstdlib>
#include <iostream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <unistd.h>
#include <boost/asio/io_context.hpp>
#include <boost/asio/local/stream_protocol.hpp>
#include <boost/asio/strand.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>

namespace {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;

using Protocol = asio::local::stream_protocol;
using Executor = asio::strand<asio::io_context::executor_type>;
using Socket = asio::basic_stream_socket<Protocol, Executor>;

class Session : public std::enable_shared_from_this<Session> {
 public:
  Session(Socket socket, const std::string& body) : socket_(std::move(socket)), body_(body) {}

  void read() {
    request_ = {};
    http::async_read(socket_, buffer_, request_,
                     [self = shared_from_this()](beast::error_code error, std::size_t) {
                       if (!error) self->write();
                     });
  }

 private:
  void write() {
    response_ = {http::status::ok, 11};
    response_.set(http::field::content_type, "application/json");
    response_.body() = body_;
    response_.prepare_payload();
    http::async_write(socket_, response_,
                      [self = shared_from_this()](beast::error_code error, std::size_t) {
                        if (!error) self->read();
                      });
  }

  Socket socket_;
  const std::string& body_;
  beast::flat_buffer buffer_;
  http::request<http::string_body> request_;
  http::response<http::string_body> response_;
};

class Server {
 public:
  Server(asio::io_context& context, const std::string& path, std::size_t bytes)
      : context_(context),
        acceptor_(context, Protocol::endpoint(path)),
        body_(std::string(bytes, ' ')) {}

  void accept() {
    acceptor_.async_accept(asio::make_strand(context_),
                           [this](beast::error_code error, Socket socket) {
                             if (error) return;
                             std::make_shared<Session>(std::move(socket), body_)->read();
                             accept();
                           });
  }

 private:
  asio::io_context& context_;
  asio::basic_socket_acceptor<Protocol> acceptor_;
  const std::string body_;
};

}  // namespace

int main(int argc, char** argv) {
  if (argc < 3) {
    std::cerr << "usage: bare_server SOCKET BYTES [THREADS]\n";
    return 2;
  }
  const unsigned threads = argc > 3 ? static_cast<unsigned>(std::atoi(argv[3])) : 2;
  ::unlink(argv[1]);
  asio::io_context context(static_cast<int>(threads));
  Server server(context, argv[1], static_cast<std::size_t>(std::atoi(argv[2])));
  server.accept();
  std::vector<std::thread> all;
  for (unsigned i = 1; i < threads; ++i) all.emplace_back([&] { context.run(); });
  context.run();
}
