// The baseline of the web figures: a minimal server on the same HTTP library as the Guardian's,
// with as many threads, which gives every request the same bytes.
//   bare_http_server PORT FILE   FILE holds the whole answer, its head included

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/write.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/http/empty_body.hpp>
#include <boost/beast/http/parser.hpp>
#include <boost/beast/http/read.hpp>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <memory>
#include <optional>
#include <string>
#include <thread>

namespace {

namespace asio = boost::asio;
namespace http = boost::beast::http;
using tcp = asio::ip::tcp;
using TErrorCode = boost::system::error_code;

class TConnection : public std::enable_shared_from_this<TConnection> {
 public:
  TConnection(tcp::socket socket, const std::string& answer)
      : FSocket(std::move(socket)), FAnswer(answer) {}

  void Read() {
    FParser.emplace();
    http::async_read(FSocket, FBuffer, *FParser,
                     [self = shared_from_this()](const TErrorCode& error, std::size_t) {
                       if (!error) self->Write();
                     });
  }

 private:
  void Write() {
    asio::async_write(FSocket, asio::buffer(FAnswer),
                      [self = shared_from_this()](const TErrorCode& error, std::size_t) {
                        if (!error) self->Read();
                      });
  }

  tcp::socket FSocket;
  const std::string& FAnswer;
  boost::beast::flat_buffer FBuffer;
  std::optional<http::request_parser<http::empty_body>> FParser;
};

class TServer {
 public:
  TServer(unsigned short port, std::string answer)
      : FAnswer(std::move(answer)),
        FListener(FIo, tcp::endpoint(asio::ip::address_v4::loopback(), port)) {
    Accept();
  }

  void Run() {
    std::thread other([this] { FIo.run(); });
    FIo.run();
    other.join();
  }

 private:
  void Accept() {
    FListener.async_accept([this](const TErrorCode& error, tcp::socket socket) {
      if (!error) {
        socket.set_option(tcp::no_delay(true));
        std::make_shared<TConnection>(std::move(socket), FAnswer)->Read();
      }
      Accept();
    });
  }

  const std::string FAnswer;
  asio::io_context FIo{2};
  tcp::acceptor FListener;
};

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) return EXIT_FAILURE;
  std::ifstream file(argv[2], std::ios::binary);
  TServer(static_cast<unsigned short>(std::atoi(argv[1])),
          {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()})
      .Run();
}
