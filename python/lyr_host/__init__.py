"""Talks to an engine that runs liblyr_host, over its control socket. The standard library is enough.

    with lyr_host.Client() as client:
        client.add_tunnel(lyr_host.Tunnel("10.0.0.1", 12380, "10.0.0.254", 5246, instance=3))
"""
from .client import Client
from .connection import BadReply, Error, NoEngine, OperationFailed, Refused, default_path
from .values import (DropWatch, Line, MessageTypeCounters, PacketCounters, PingCounters, Probe,
                     Removal, Session, Source, Trace, Tunnel)

__all__ = ["Client", "BadReply", "Error", "NoEngine", "OperationFailed", "Refused", "default_path",
           "DropWatch", "Line", "MessageTypeCounters", "PacketCounters", "PingCounters", "Probe",
           "Removal", "Session", "Source", "Trace", "Tunnel"]
