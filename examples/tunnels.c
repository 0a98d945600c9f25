/* Registers a tunnel, lists all of IPv4, and shows the engine's next lines.
 *
 *     cc tunnels.c $(pkg-config --cflags --libs lyrclient) -o tunnels
 */
#include <stdio.h>
#include <stdlib.h>

#include "lyr/client.h"

static LyrClient *client;

/* Ends the program unless a call went well. */
static void check(const char *what, LyrClientOutcome outcome) {
    if (outcome != LYR_CLIENT_OK) {
        fprintf(stderr, "%s: %s\n", what, LyrClientError(client));
        LyrClientFree(client);
        exit(outcome == LYR_CLIENT_NO_ENGINE ? 3 : 1);
    }
}

static int show(void *count, const MundIpv4Tunnel *tunnel) {
    LyrKesRpcIpAddr source = {0};
    char text[LYR_CLIENT_ADDRESS_LEN];
    source.ipv4Addr = tunnel->key.srcIp;
    LyrClientAddressToText(&source, text);
    printf("%s port %u: instance %u\n", text, tunnel->key.srcPort, tunnel->nodeId);
    ++*(unsigned *)count;
    return 0;
}

int main(int argc, char **argv) {
    client = LyrClientNew();
    if (client == NULL) {
        return 1;
    }
    LyrClientSetLimits(client, 2000, 5000);
    check("connect", LyrClientConnect(client, argc > 1 ? argv[1] : NULL));

    LyrKesCwpTunnelReq request = {0};
    request.operation = LYR_KES_OPERATION_ADD;
    LyrClientAddressFromText("192.168.10.11", &request.srcAddr);
    LyrClientAddressFromText("192.168.10.9", &request.dstAddr);
    request.srcPort = 12380;
    request.dstPort = 5246;
    request.nodeId = 4;
    check("add a tunnel", LyrClientCwpTunnel(client, &request));

    unsigned count = 0;
    check("list tunnels", LyrClientVisitIpv4Tunnels(client, show, &count));
    MundSourceRecord sources[LYR_KES_CWP_SRC_NUM];
    check("read the sources", LyrClientGetSources(client, sources));
    printf("%u tunnels; the first source is of type %u\n", count, sources[0].srcType);

    check("follow", LyrClientFollow(client));
    LyrClientLine line;
    while (LyrClientNextLine(client, 1000, &line) == LYR_CLIENT_OK) {
        printf("%u: %s\n", line.header.kind, line.text);
    }
    LyrClientFree(client);
    return 0;
}
