"""The daemon as a process: how it starts, rests and ends."""
import os
import pathlib
import pty
import random
import signal
import socket
import threading
import time

import lab
from wire import ScriptedServer, packet_socket, udp_frame

REGISTRATION_FAILED = 212  # the low eight bits of kGenericErr


class Process(lab.LabTest):
    def serve(self):
        server = ScriptedServer(self.lab.namespace("server"))
        self.addCleanup(server.close)

    def bus(self):
        return lab.Bus(self.lab.bus_address("client"))

    def assert_gone(self, daemon):
        lab.eventually(lambda: not pathlib.Path(f"/proc/{daemon.pid}").exists(), 5, "end of the process")
        self.assertIsNone(self.bus().owner())

    def test_told_to_stop_at_any_moment_it_ends_in_order(self):
        self.serve()
        seed = int(os.environ.get("OSTREL_SEED", random.randrange(1 << 32)))
        moments = random.Random(seed)
        for turn in range(15 if lab.SANITIZED else 60):
            moment = moments.choice([0, moments.uniform(0, 0.01), moments.uniform(0, 0.1)])
            number = moments.choice([signal.SIGTERM, signal.SIGINT])
            with self.subTest(seed=seed, turn=turn, moment=moment, signal=number):
                daemon = lab.Daemon(self.lab, "client", "-z", "-l", "info")
                busy = threading.Thread(target=self.keep_busy, args=(self.bus(),))
                busy.start()
                time.sleep(moment)
                self.assertEqual(lab.stop(daemon.process, number), 0)
                busy.join()
                self.assert_gone(daemon)
                self.assertTrue(self.lab.log("client").rstrip().endswith(f"stopped {lab.SERVICE}"), daemon.words())
                daemon.close()

    @staticmethod
    def keep_busy(bus):
        """Calls until nobody answers any more."""
        request = dict(lab.CLIENT_REQUEST, subscribe=True)
        try:
            while True:
                bus.request("/", "interfaceInitialize", **request)
                bus.request("/client", "leaseAction", interface="eth0", leaseAction="init")
                bus.request("/client", "leaseInformation", subscribe=True)
                bus.request("/", "interfaceFinalize", interface="eth0")
        except lab.BusError:
            bus.close()

    def test_a_second_instance_leaves_the_first_alone(self):
        self.serve()
        first = self.daemon()
        first.become_client()
        lease, owner = first.publication(20), first.bus.owner()
        second = self.lab.start("client", lab.OSTRELD, "-z")
        self.assertEqual(second.wait(10), REGISTRATION_FAILED)
        self.assertEqual(first.bus.owner(), owner)
        self.assertEqual(lab.timeless(first.lease()), lab.timeless(lease))

    def test_losing_the_bus_ends_it_so_that_it_can_be_started_again(self):
        self.serve()
        daemon = self.daemon()
        daemon.become_client()
        daemon.publication(20)
        self.lab.kill_bus("client")
        self.assertEqual(daemon.process.wait(10), REGISTRATION_FAILED)

    def test_without_a_bus_it_does_not_start(self):
        self.lab.kill_bus("client")
        lab.eventually(lambda: self.refused(), 5, "end of the bus")
        process = self.lab.start("client", lab.OSTRELD, "-z")
        self.assertEqual(process.wait(10), REGISTRATION_FAILED)

    def refused(self):
        try:
            self.bus().owner()
        except lab.BusError:
            return True
        return False

    def test_a_bound_client_sleeps_through_what_is_not_for_it(self):
        self.serve()
        daemon = self.daemon("-z")
        daemon.become_client()
        daemon.publication(20)
        self.assertIsNone(daemon.bus.next_post("/client", "leaseInformation", 1))  # answers what came behind the post
        before = self.wake_ups(daemon)
        talker = packet_socket(self.lab.namespace("server"), "eth0")
        noise = udp_frame("02:00:00:00:00:02", "ff:ff:ff:ff:ff:ff", "192.0.2.9", "192.0.2.255", (138, 138), b"noise")
        for _ in range(1000):
            talker.send(noise)
        time.sleep(19)
        talker.close()
        self.assertEqual(self.wake_ups(daemon), before)

    @staticmethod
    def wake_ups(daemon):
        """How often the process has gone to sleep so far; what wakes it makes it sleep once more."""
        status = pathlib.Path(f"/proc/{daemon.pid}/status").read_text()
        return int(status.split("voluntary_ctxt_switches:")[1].split()[0])

    def test_levels_and_back_ends_of_the_command_line(self):
        for options, started in ((["-z"], False), (["-z", "-l", "info"], True), (["-z", "-l", "loud"], False),
                                 (["-z", "-l", "info", "-l", "error"], False), (["-z", "-q", "-l", "info"], True)):
            with self.subTest(options=options):
                daemon = lab.Daemon(self.lab, "client", *options)
                daemon.close()
                log = self.lab.log("client")
                self.assertEqual(f"started {lab.SERVICE} valdo" in log, started, log)
                (self.lab.directory / "log" / "client" / "ostrel.log").write_text("")

    def test_asked_for_help_or_its_version_it_answers_and_starts_nothing(self):
        for words, part in ((["--help"], "usage: ostreld [-z] [-l LEVEL]"), (["-z", "--version"], "ostreld ")):
            output = self.lab.directory / f"asked{words[-1]}"
            process = self.lab.start("client", lab.OSTRELD, *words, output=output)
            self.assertEqual(process.wait(10), 0)
            self.assertTrue(output.read_text().startswith(part), output.read_text())
        self.assertEqual(self.lab.log("client"), "")

    def streams(self, daemon):
        return [os.readlink(f"/proc/{daemon.pid}/fd/{fd}") for fd in range(3)]

    def test_started_with_closed_streams_it_logs_all_the_same(self):
        for closed in ("2>&-", ">&-", "<&-", "<&- >&- 2>&-"):
            for option in (["-l", "info"], ["-z", "-l", "info"]):
                with self.subTest(closed=closed, option=option):
                    daemon = lab.Daemon(self.lab, "client", *option, wrapper=["sh", "-c", f'exec "$@" {closed}', "sh"])
                    self.assertEqual([name.split("/")[-1] for name in self.streams(daemon)[1:]], ["ostrel.log"] * 2)
                    daemon.close()
                    self.assertIn(f"stopped {lab.SERVICE}", self.lab.log("client"))
                    (self.lab.directory / "log" / "client" / "ostrel.log").write_text("")

    def test_a_reader_of_its_standard_error_that_leaves_does_not_end_it(self):
        (self.lab.directory / "log" / "client" / "ostrel.log").mkdir()  # so standard error stays what it was
        reader, writer = os.pipe()
        process = self.lab.start("client", "sh", "-c", f'exec "$0" >/proc/self/fd/{writer} 2>&1', lab.OSTRELD,
                                 pass_fds=[writer])
        os.close(writer)
        lab.eventually(lambda: self.bus().owner(), 10, "name on the bus")
        os.close(reader)
        for _ in range(3):
            self.assertFalse(self.bus().request("/", "interfaceFinalize", interface="none")["returnValue"])
        self.assertEqual(lab.stop(process), 0)

    def test_who_starts_it_by_hand_is_told_why_it_cannot(self):
        self.daemon()
        terminal, other_end = pty.openpty()
        process = self.lab.start("client", "sh", "-c", f'exec "$0" -z 2>/proc/self/fd/{other_end}', lab.OSTRELD,
                                 pass_fds=[other_end])
        self.assertEqual(process.wait(10), REGISTRATION_FAILED)
        os.close(other_end)
        self.assertRegex(os.read(terminal, 4096).decode(),
                         r"\Aostreld: another process owns the service's name: .*\r\n\Z")
        os.close(terminal)

    def test_a_service_manager_that_asks_for_signs_of_life_gets_them(self):
        manager = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self.addCleanup(manager.close)
        manager.bind(str(self.lab.directory / "notify"))
        manager.settimeout(5)
        self.daemon(environment={"NOTIFY_SOCKET": str(self.lab.directory / "notify"), "WATCHDOG_USEC": "1000000"})
        for _ in range(3):
            self.assertEqual(manager.recv(4096), b"WATCHDOG=1")


if __name__ == "__main__":
    lab.main()
