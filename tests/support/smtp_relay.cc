#include "tests/support/smtp_relay.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <sstream>

#include "tests/support/test_support.h"

bool smtp_relay::start(const std::string& folder,
                       const std::vector<std::string>& extra) {
  dir = folder;
  std::string port_file = new_port_file("smtp");
  // The full path as argv[0] too: from a bare name Python finds its library
  // through PATH, which may lead to another interpreter without aiosmtpd.
  std::vector<std::string> argv = {
      "/usr/bin/python3", SMTP_RELAY_SCRIPT, "--dir", dir,
      "--port-file",      port_file};
  argv.insert(argv.end(), extra.begin(), extra.end());
  return port_process::start("/usr/bin/python3", argv, port_file);
}

std::vector<received_mail> smtp_relay::received() const {
  std::vector<received_mail> out;
  for (std::string name : list_dir(dir, ".txt")) {
    name.resize(name.size() - 4);
    received_mail m;
    std::istringstream lines(read_file(dir + "/" + name + ".txt"));
    for (std::string line; std::getline(lines, line);) {
      size_t eq = line.find('=');
      m[line.substr(0, eq)] = line.substr(eq + 1);
    }
    m["body"] = read_file(dir + "/" + name + ".body");
    m["raw"] = read_file(dir + "/" + name + ".eml");
    out.push_back(std::move(m));
  }
  return out;
}

std::vector<received_mail> smtp_relay::wait_for(size_t n) const {
  std::vector<received_mail> got = received();
  for (int waited = 0; waited < 10000 && got.size() < n; waited += 20) {
    pause_ms(20);
    got = received();
  }
  return got;
}

int free_port() {
  int s = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t len = sizeof a;
  int port = 0;
  if (bind(s, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0 &&
      getsockname(s, reinterpret_cast<sockaddr*>(&a), &len) == 0) {
    port = ntohs(a.sin_port);
  }
  close(s);
  return port;
}
