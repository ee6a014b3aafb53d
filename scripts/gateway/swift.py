"""Run one server of a Swift cluster of one node, or describe where such a cluster stores its objects.

Usage: swift.py account|container|object|proxy CONFIG      run this server in the foreground
       swift.py rings CONFIG ACCOUNT_PORT CONTAINER_PORT OBJECT_PORT

CONFIG is the swift.conf of the cluster. The other configuration files, and the folder of the devices, are beside it.
"""

import logging.handlers
import os
import sys

from swift.common import utils


def make_rings(folder, ports):
    """Everything is on the device "only"."""
    from swift.common.ring import RingBuilder

    os.setxattr(os.path.join(folder, "devices", "only"), "user.swift", b"")  # fails where Swift cannot store anything
    for name, port in zip(("account", "container", "object"), ports):
        builder = RingBuilder(part_power=4, replicas=1, min_part_hours=1)
        builder.add_dev({"id": 0, "region": 1, "zone": 1, "device": "only", "weight": 1.0, "meta": "",
                         "ip": "127.0.0.1", "port": int(port),
                         "replication_ip": "127.0.0.1", "replication_port": int(port)})  # fmt: skip
        builder.rebalance()
        builder.get_ring().save(os.path.join(folder, name + ".ring.gz"))


def serve(name, folder):
    """What Debian's script for this server does."""
    from swift.common.wsgi import run_wsgi

    log = os.dup(sys.stderr.fileno())  # the server closes its own
    logging.handlers.SysLogHandler.emit = lambda self, record: os.write(log, (self.format(record) + "\n").encode())
    more = {}
    if name == "object":
        from swift.obj import server

        more["global_conf_callback"] = server.global_conf_callback
    return run_wsgi(os.path.join(folder, name + ".conf"), name + "-server", **more)


utils.SWIFT_CONF_FILE = sys.argv[2]
folder = os.path.dirname(sys.argv[2])
sys.exit(make_rings(folder, sys.argv[3:]) if sys.argv[1] == "rings" else serve(sys.argv[1], folder))
