#!/usr/bin/env python3
"""Registers a tunnel, lists all, and shows the engine's next lines."""
import sys

import lyr_host


def main():
    path = sys.argv[1] if len(sys.argv) > 1 else None
    with lyr_host.Client(path, connect_timeout=2, timeout=5) as client:
        client.add_tunnel(lyr_host.Tunnel("192.168.10.11", 12380, "192.168.10.9", 5246, instance=4))
        tunnels = list(client.tunnels())
        for tunnel in tunnels:
            print("%s port %d: instance %d" % (tunnel.source, tunnel.source_port, tunnel.instance))
        print("%d tunnels; the first source is of type %d" %
              (len(tunnels), client.sources()[0].type))
        if "--follow" in sys.argv:
            for line in client.follow():
                print("%s: %s" % (line.kind, line.text))


try:
    main()
except lyr_host.NoEngine as error:
    sys.exit(print(error, file=sys.stderr) or 3)
except lyr_host.Error as error:
    sys.exit(str(error))
