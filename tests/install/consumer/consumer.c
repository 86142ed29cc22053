/* Reports a threat. */
#include <pyxclient/pyxclient.h>
#include <stdio.h>

int main(void) {
  pyx_client* client = pyx_client_new();
  const pyx_result result = pyx_report(client, "http://c.example/", 17, "phishing", 8);
  puts(pyx_result_text(result));
  pyx_client_free(client);
  return result == PYX_OK ? 0 : 1;
}
