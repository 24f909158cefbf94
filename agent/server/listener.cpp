#include "agent/server/listener.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <cstring>
#include <utility>

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>
#include <boost/asio/basic_socket_acceptor.hpp>
#include <boost/asio/bind_executor.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/local/stream_protocol.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/strand.hpp>

#include "agent/server/connection.h"

namespace vnagent {
namespace {

namespace net = boost::asio;
using boost::system::error_code;
using Local = net::local::stream_protocol;
using Tcp = net::ip::tcp;

// How long to wait where the process has no descriptor left.
constexpr std::chrono::milliseconds kNoDescriptor{100};

// Accepts connections, one after the other, on a strand of its own.
template <class Protocol>
class Acceptor : public Listener {
 public:
  using Socket = net::basic_stream_socket<Protocol, NetworkExecutor>;

  void start() override {
    acceptor_->listen(net::socket_base::max_listen_connections);
    net::post(strand_, [this] { accept(); });
  }
  void close() override {
    net::post(strand_, [acceptor = acceptor_, timer = timer_] {
      error_code ignored;
      acceptor->close(ignored);
      timer->cancel();
    });
  }

 protected:
  Acceptor(net::io_context& context, std::shared_ptr<Hub> hub)
      : hub_(std::move(hub)),
        context_(context),
        strand_(net::make_strand(context)),
        acceptor_(std::make_shared<net::basic_socket_acceptor<Protocol, NetworkExecutor>>(strand_)),
        timer_(std::make_shared<net::steady_timer>(context)) {}

  virtual std::shared_ptr<Connection> connect(Socket socket) = 0;
  net::basic_socket_acceptor<Protocol, NetworkExecutor>& acceptor() { return *acceptor_; }
  const std::shared_ptr<Hub>& hub() const { return hub_; }

 private:
  void accept() {
    if (!acceptor_->is_open()) return;
    acceptor_->async_accept(
        net::make_strand(context_),
        net::bind_executor(strand_, [this](const error_code& error, Socket socket) {
          if (!acceptor_->is_open() || error == net::error::operation_aborted) return;
          if (error == net::error::no_descriptors || error == net::error::no_memory ||
              error == net::error::no_buffer_space ||
              error == error_code(ENFILE, boost::system::system_category())) {
            return acceptLater();
          }
          // Other errors are those of one client, which went away before it was accepted.
          if (!error && !hub_->isFlooded()) begin(std::move(socket));
          accept();
        }));
  }
  void acceptLater() {
    timer_->expires_after(kNoDescriptor);
    timer_->async_wait(net::bind_executor(strand_, [this](const error_code&) { accept(); }));
  }
  void begin(Socket socket) {
    // A peer that went away has neither address nor user; then there is nobody to serve.
    if (const auto connection = connect(std::move(socket))) connection->start();
  }

  const std::shared_ptr<Hub> hub_;
  net::io_context& context_;
  NetworkExecutor strand_;
  std::shared_ptr<net::basic_socket_acceptor<Protocol, NetworkExecutor>> acceptor_;
  std::shared_ptr<net::steady_timer> timer_;
};

// The Unix socket.

// Lets one process at a time look whether a socket is in use and take it over: a lock on its
// folder, which ends with this object.
class FolderLock {
 public:
  explicit FolderLock(const std::string& path) {
    const auto slash = path.rfind('/');
    const std::string folder =
        slash == path.npos ? "." : path.substr(0, std::max<size_t>(slash, 1));
    descriptor_ = open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (descriptor_ < 0) {
      throw CannotListen(fmt::format("cannot listen on {}: {}", path, std::strerror(errno)));
    }
    while (flock(descriptor_, LOCK_EX) != 0 && errno == EINTR) {
    }
  }
  ~FolderLock() { ::close(descriptor_); }
  FolderLock(const FolderLock&) = delete;
  FolderLock& operator=(const FolderLock&) = delete;

 private:
  int descriptor_;
};

ucred peerOf(int descriptor) {
  ucred peer{};
  socklen_t size = sizeof(peer);
  if (getsockopt(descriptor, SOL_SOCKET, SO_PEERCRED, &peer, &size) != 0) peer.pid = 0;
  return peer;
}

// Removes what a process that has ended left there. Throws CannotListen where one listens.
void removeStale(net::io_context& context, const std::string& path) {
  struct stat status {};
  if (lstat(path.c_str(), &status) != 0) return;
  if (!S_ISSOCK(status.st_mode)) {
    throw CannotListen(fmt::format("cannot listen on {}: there is a file that is no socket", path));
  }
  Local::socket probe(context);
  error_code error;
  probe.open();
  // A socket whose line is full is in use, and must not make this wait.
  probe.non_blocking(true);
  probe.connect(Local::endpoint(path), error);
  if (error == net::error::connection_refused) {
    unlink(path.c_str());
    return;
  }
  if (!error) {
    throw CannotListen(fmt::format("cannot listen on {}: process {} listens there", path,
                                   peerOf(probe.native_handle()).pid));
  }
  if (error == net::error::would_block || error == net::error::try_again) {
    throw CannotListen(fmt::format("cannot listen on {}: another process listens there", path));
  }
  throw CannotListen(fmt::format("cannot listen on {}: {}", path, error.message()));
}

class UnixListener final : public Acceptor<Local> {
 public:
  UnixListener(net::io_context& context, std::shared_ptr<Hub> hub, const std::string& path,
               const Principal& role)
      : Acceptor(context, std::move(hub)), path_(path), role_(role) {
    const FolderLock lock(path);
    removeStale(context, path);
    // Nobody may connect before the mode is set; the program has one thread still.
    const mode_t mask = umask(S_IXUSR | S_IXGRP | S_IRWXO);
    error_code error;
    try {
      acceptor().open();
      acceptor().bind(Local::endpoint(path), error);
      if (!error) acceptor().listen(net::socket_base::max_listen_connections, error);
    } catch (const std::exception& fault) {
      umask(mask);
      throw CannotListen(fmt::format("cannot listen on {}: {}", path, fault.what()));
    }
    umask(mask);
    if (error) throw CannotListen(fmt::format("cannot listen on {}: {}", path, error.message()));
    struct stat status {};
    if (lstat(path.c_str(), &status) == 0) inode_ = status.st_ino;
  }

  // The file is removed at the end of the process, unless another one has taken the path over.
  ~UnixListener() override {
    struct stat status {};
    if (lstat(path_.c_str(), &status) == 0 && status.st_ino == inode_) unlink(path_.c_str());
  }

  std::string address() const override { return "unix:" + path_; }

 private:
  std::shared_ptr<Connection> connect(Socket socket) override {
    Principal principal = role_;
    principal.name = userName(peerOf(socket.native_handle()).uid);
    return makeConnection(hub(), PlainSocket(std::move(socket)), std::move(principal));
  }

  const std::string path_;
  const Principal role_;
  ino_t inode_ = 0;
};

// TCP.

[[noreturn]] void failAddress(const std::string& address) {
  throw CannotListen(
      fmt::format("'{}' is not ADDRESS:PORT, such as 127.0.0.1:8080 or [::1]:8080", address));
}

Tcp::endpoint endpointOf(const std::string& address) {
  const auto colon = address.rfind(':');
  if (colon == address.npos) failAddress(address);
  std::string host = address.substr(0, colon);
  const bool isBracketed = host.size() > 2 && host.front() == '[' && host.back() == ']';
  if (isBracketed) host = host.substr(1, host.size() - 2);
  if (host == "localhost") host = "127.0.0.1";
  uint16_t port = 0;
  const char* const end = address.data() + address.size();
  const auto read = std::from_chars(address.data() + colon + 1, end, port);
  error_code error;
  const auto ip = net::ip::make_address(host, error);
  if (error || ip.is_v6() != isBracketed || read.ec != std::errc() || read.ptr != end) {
    failAddress(address);
  }
  return {ip, port};
}

class TcpListener final : public Acceptor<Tcp> {
 public:
  TcpListener(net::io_context& context, std::shared_ptr<Hub> hub, const std::string& address,
              TlsSource tls)
      : Acceptor(context, std::move(hub)), tls_(std::move(tls)) {
    const auto endpoint = endpointOf(address);
    error_code error;
    acceptor().open(endpoint.protocol(), error);
    if (!error) acceptor().set_option(net::socket_base::reuse_address(true), error);
    if (!error) acceptor().bind(endpoint, error);
    if (!error) acceptor().listen(net::socket_base::max_listen_connections, error);
    if (error) throw CannotListen(fmt::format("cannot listen on {}: {}", address, error.message()));
    const auto local = acceptor().local_endpoint();
    std::string host = local.address().to_string();
    if (local.address().is_v6()) host = "[" + host + "]";
    address_ = fmt::format("{}://{}:{}", tls_() ? "https" : "http", host, local.port());
  }

  std::string address() const override { return address_; }

 private:
  std::shared_ptr<Connection> connect(Socket socket) override {
    error_code error;
    socket.set_option(Tcp::no_delay(true), error);
    socket.set_option(net::socket_base::keep_alive(true), error);
    if (auto tls = tls_()) return makeTlsConnection(hub(), std::move(socket), std::move(tls));
    return makeConnection(hub(), PlainSocket(std::move(socket)), std::nullopt);
  }

  const TlsSource tls_;
  std::string address_;
};

}  // namespace

std::unique_ptr<Listener> listenOnUnixSocket(net::io_context& context, std::shared_ptr<Hub> hub,
                                             const std::string& path, const Principal& role) {
  if (path.size() >= sizeof(sockaddr_un::sun_path)) {
    throw CannotListen(fmt::format("cannot listen on {}: the path is too long for a socket", path));
  }
  return std::make_unique<UnixListener>(context, std::move(hub), path, role);
}

std::unique_ptr<Listener> listenOnTcp(net::io_context& context, std::shared_ptr<Hub> hub,
                                      const std::string& address, const TlsSource& tls) {
  return std::make_unique<TcpListener>(context, std::move(hub), address, tls);
}

bool isLoopback(const std::string& address) {
  return endpointOf(address).address().is_loopback();
}

}  // namespace vnagent
