"""The demonstration behind ./demo --standard: the same story with the standard responder, and what
that one does beyond it."""

import sys
import time

from lab.demo import Demo, has_record_of, is_response, print_step, print_title, run
from lab.dual import FAMILIES, DualLab, query


class StandardDemo(Demo):
    # Announced twice, a second apart; the goodbyes of a printer's services share a packet.
    transmissions = 2
    goodbyes = 1

    def _wait(self, wanted, since, count=1):
        # The same is sent by IPv6.
        return self.lab.wait(wanted, since, "ipv4", count)

    def show_more(self):
        self.ask_from_a_phone()
        self.make_bridge_again()

    def ask_from_a_phone(self):
        print_title("A phone asks from a port of its own, and is answered by unicast")
        phone = self.lab.add_asker()
        name = f"{self.router.daemon.device_name}.local"
        for family in FAMILIES:
            for rrtype in ("A", "AAAA"):
                question = query(name, rrtype, ident=len(rrtype))
                mark = self.lab.capture.mark()
                answer = self.lab.ask(question, family, phone, port=0)
                (asked,) = self.lab.capture.seen(lambda one: one.payload == question, mark)
                data = ", ".join(one.data for one in answer.message.answers)
                way = {"ipv4": "IPv4", "ipv6": "IPv6"}[family]
                print_step(answer.time - asked.time, f"{rrtype}, asked by {way}: {data}")

    def make_bridge_again(self):
        print_title("The router's bridge is deleted and re-created")
        name = f"{self.router.daemon.device_name}.local"
        self.router.delete_bridge()
        mark, start = self.lab.capture.mark(), time.time()
        self.lab.add_bridge_again()
        probe = self._wait(lambda packet: packet.is_query, mark)[0]
        print_step(probe.time - start, "the router probes for its names again")
        announced = self._wait(
            lambda packet: is_response(packet) and has_record_of(name)(packet), mark
        )[0]
        print_step(announced.time - start, "it announces them to all hosts")
        self._ask(name, "A", f"what is the address of {name}?", has_record_of(name))


if __name__ == "__main__":
    sys.exit(run(DualLab, StandardDemo, "./demo --standard"))
