"""The link: a switch in a network of its own, into which routers and hosts are plugged by veth."""

from lab.netns import NetworkNamespace

SWITCH = "switch"


class Link:
    """A switch that sees every frame on its ports; none of them leads out of the lab."""

    def __init__(self):
        self.network = NetworkNamespace()
        self._ports = 0
        self.network.ip(
            f"link add {SWITCH} type bridge mcast_snooping 0", f"link set {SWITCH} up"
        )

    def plug_in(self, network, name, mac=None):
        """Gives `network` an interface `name` at this link, up, with that hardware address."""
        port = f"port{self._ports}"
        self._ports += 1
        far_end = self.network.descriptor
        address = f" address {mac}" if mac else ""
        network.ip(
            f"link add {name}{address} type veth peer name {port} netns /proc/self/fd/{far_end}",
            f"link set {name} up",
            passing=(far_end,),
        )
        self.network.ip(f"link set {port} master {SWITCH} up")
        network.wait_until_running(name)
        self.network.wait_until_running(port, SWITCH)

    def close(self):
        self.network.close()
