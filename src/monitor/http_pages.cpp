#include "monitor/http_pages.h"

namespace {

// The page's own inline script and style, and its fetches of status.json, are
// all it may use; nothing from elsewhere loads, and it cannot be framed.
constexpr const char *kPageHeaders =
    "Content-Type: text/html; charset=utf-8\r\n"
    "Content-Security-Policy: default-src 'none'; script-src 'unsafe-inline'; style-src 'unsafe-inline'; "
    "connect-src 'self'; img-src data:; base-uri 'none'; form-action 'none'; frame-ancestors 'none'\r\n";

std::string Answer(const char *status, const std::string &headers, const std::string &body) {
  return std::string("HTTP/1.1 ") + status + "\r\n" + headers + "Cache-Control: no-store\r\n" +
         "X-Content-Type-Options: nosniff\r\nContent-Length: " + std::to_string(body.size()) +
         "\r\nConnection: close\r\n\r\n" + body;
}

}  // namespace

bool HttpRequestComplete(const std::string &request) {
  return request.find("\r\n\r\n") != std::string::npos || request.find("\n\n") != std::string::npos;
}

std::string HttpAnswer(const std::string &request, const HttpContent &content) {
  std::string line = request.substr(0, request.find_first_of("\r\n"));
  // "GET <target> HTTP/1.x", the target's query ignored.
  std::string path;
  if (line.rfind("GET ", 0) == 0 && line.size() > 13) {
    std::string version = line.substr(line.size() - 9);
    if (version == " HTTP/1.1" || version == " HTTP/1.0") path = line.substr(4, line.size() - 13);
  }
  path = path.substr(0, path.find('?'));
  if (path == "/metrics") {
    return Answer("200 OK", "Content-Type: text/plain; version=0.0.4; charset=utf-8\r\n", content.metrics());
  }
  if (path == "/status.json") return Answer("200 OK", "Content-Type: application/json\r\n", content.status());
  if (path == "/" || path == "/index.html") return Answer("200 OK", kPageHeaders, StatusPage());
  return Answer("404 Not Found", "Content-Type: text/plain\r\n", "not found\n");
}
