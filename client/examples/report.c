/*
 * Reports a visit to a threatening URL: report URL [THREAT]
 *
 *   cc report.c -lpyxclient -o report && ./report http://malware.example/x phishing
 */
#include <pyxclient/pyxclient.h>
#include <stdio.h>
#include <string.h>

int main(int argc, char** argv) {
  if (argc < 2) {
    fprintf(stderr, "usage: %s URL [THREAT]\n", argv[0]);
    return 2;
  }
  const char* url = argv[1];
  const char* threat = argc > 2 ? argv[2] : "";

  pyx_client* client = pyx_client_new();
  if (client == NULL) return 1;
  pyx_result result = pyx_report(client, url, strlen(url), threat, strlen(threat));
  if (result == PYX_OK) {
    puts("logged");
  } else if (result == PYX_UNKNOWN_OUTCOME) {
    fprintf(stderr, "perhaps logged: %s\n", pyx_client_message(client));
  } else {
    fprintf(stderr, "not logged: %s\n", pyx_client_message(client));
  }
  pyx_client_free(client);
  return result == PYX_OK ? 0 : 1;
}
