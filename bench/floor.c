// The floor under every client: connects, asks, copies the body to standard output. "floor PORT PATH", IPv4 loopback,
// an answer with the header in one piece.
#include <arpa/inet.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

static int connectTo(int port) {
  const struct sockaddr_in address = {
      .sin_family = AF_INET, .sin_port = htons((unsigned short)port), .sin_addr.s_addr = htonl(INADDR_LOOPBACK)};
  const int connection = socket(AF_INET, SOCK_STREAM, 0);
  return connect(connection, (const struct sockaddr*)&address, sizeof address) == 0 ? connection : -1;
}

static int ask(int connection, const char* path) {
  char request[512];
  const int size = snprintf(request, sizeof request, "GET %s HTTP/1.0\r\nHost: 127.0.0.1\r\n\r\n", path);
  return write(connection, request, (size_t)size) == size;
}

static int copyBody(int connection) {
  static char answer[65536];
  ssize_t size = read(connection, answer, sizeof answer - 1);
  if (size <= 0) return 0;
  const char* const headerEnd = strstr(answer, "\r\n\r\n");
  if (headerEnd == NULL) return 0;
  const char* body = headerEnd + 4;
  for (size -= body - answer; size > 0 || (size = read(connection, answer, sizeof answer)) > 0; size = 0) {
    if (write(STDOUT_FILENO, body, (size_t)size) != size) return 0;
    body = answer;
  }
  return size == 0;
}

int main(int argumentCount, char** arguments) {
  if (argumentCount != 3) return EXIT_FAILURE;
  const int connection = connectTo(atoi(arguments[1]));
  return connection >= 0 && ask(connection, arguments[2]) && copyBody(connection) ? EXIT_SUCCESS : EXIT_FAILURE;
}
