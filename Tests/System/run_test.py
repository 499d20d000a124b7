"""`ostrelctl run`: the interfaces are as the files say, whatever is killed, renamed, pulled out or edited."""
import json
import os
import pathlib
import subprocess
import time

import lab

OSTRELCTL = str(pathlib.Path(lab.OSTRELD).parent / "ostrelctl")
CLIENT = '[eth0]\nrole = "client"\nlink-local = "fallback"\n'
SERVER = '[eth0]\nrole = "server"\naddress = "192.0.2.1/24"\nrange = "192.0.2.50-192.0.2.59"\nlease = "{lease}"\n'
BACK = 10 if lab.SANITIZED else 3  # seconds, after which everything is as the files say
AUTHENTICATION = 0.2  # seconds, which the bus gives a connection


class RunTest(lab.LabTest):
    def setUp(self):
        super().setUp()
        self.files, self.runs, self.daemons = {}, {}, {}
        for host, text in (("server", SERVER.format(lease="10m")), ("client", CLIENT)):
            self.files[host] = pathlib.Path(self.lab.file(f"{host}.toml", text))
            (self.lab.directory / f"state-{host}").mkdir()
            self.lab.ip(host, "link set eth0 down")
            bus = self.lab.directory / "bus" / host
            limit = f'<limit name="auth_timeout">{1000 * AUTHENTICATION:.0f}</limit>\n</busconfig>'
            configuration = bus.with_suffix(".conf")
            configuration.write_text(configuration.read_text().replace("</busconfig>", limit))
            os.kill(int(bus.with_suffix(".pid").read_text()), lab.signal.SIGHUP)

    def start_daemon(self, host):
        self.daemons[host] = self.peer(host, lab.OSTRELD, "-z", "-l", "info", output=self.lab.directory / f"d-{host}")

    def start_run(self, host, *wrapper):
        self.runs[host] = self.peer(host, *wrapper, OSTRELCTL, "run", self.files[host], "--state",
                                    self.state(host).parent, output=self.lab.directory / f"run-{host}")

    def start_all(self):
        for host in self.hosts:
            self.start_daemon(host)
            self.start_run(host)
        self.await_address(10)

    def state(self, host):
        return self.lab.directory / f"state-{host}" / "state.json"

    def said(self, host):
        return (self.lab.directory / f"run-{host}").read_text()

    def tool(self, host, *words):
        return subprocess.run([lab.SCRIPT, "run", str(self.lab.directory), host, OSTRELCTL, *words],
                              capture_output=True, text=True)

    def addresses(self, host, interface="eth0"):
        shown = subprocess.run(["ip", "-n", f"{self.lab.prefix}-{host}", "-j", "-4", "address", "show", interface],
                               capture_output=True, text=True)
        links = json.loads(shown.stdout or "[]")
        return [entry["local"] for link in links for entry in link.get("addr_info", [])]

    def held(self):
        told = self.tool("client", "--json", "status", "eth0").stdout
        return '"held":true' in told

    def table(self):
        return [line.split()[:2] for line in self.tool("server", "leases").stdout.splitlines()[1:]]

    def await_address(self, timeout, interface="eth0"):
        lab.eventually(lambda: self.addresses("client", interface) == ["192.0.2.50"], timeout,
                       f"address on {interface}: {self.said('client')}")

    def kill(self, process):
        lab.stop(process, lab.signal.SIGKILL)


class Restarts(RunTest):
    def test_addresses_stay_and_tables_are_back_whoever_is_killed(self):
        self.start_all()
        self.assertEqual(self.addresses("server"), ["192.0.2.1"])
        lab.eventually(lambda: '"mac"' in self.state("server").read_text(), 5, "table on the disk")
        table = self.table()
        # Who comes to a daemon that needs nothing must be known to the bus all the same when the next daemon does.
        for host, victims in (("client", "d"), ("server", "d"), ("server", "r"), ("client", "r"), ("client", "d"),
                              ("client", "dr"), ("server", "dr")):
            with self.subTest(host=host, victims=victims):
                if "r" in victims:
                    self.kill(self.runs[host])
                if "d" in victims:
                    self.kill(self.daemons[host])
                self.assertEqual(self.addresses("client"), ["192.0.2.50"])
                if "d" in victims:
                    self.start_daemon(host)
                if "r" in victims:
                    self.start_run(host)
                lab.eventually(lambda: self.held() and self.table() == table, BACK,
                               f"all as it was: {self.table()} {self.said(host)}")
                self.assertEqual(self.addresses("client"), ["192.0.2.50"])
                self.assertEqual(self.addresses("server"), ["192.0.2.1"])
                time.sleep(2 * AUTHENTICATION)

    def test_what_an_earlier_one_left_and_the_daemon_has_given_up_goes(self):
        self.start_all()
        lab.eventually(lambda: '"address":"192.0.2.50"' in self.state("client").read_text(), 5, "address on the disk")
        self.kill(self.runs["client"])
        self.tool("client", "halt", "eth0")
        self.assertEqual(self.addresses("client"), ["192.0.2.50"])
        self.start_run("client")
        lab.eventually(lambda: self.addresses("client") == [], BACK, f"nothing left: {self.said('client')}")

    def test_a_lost_bus_ends_it_and_leaves_the_addresses(self):
        self.start_all()
        self.lab.kill_bus("client")
        self.assertEqual(self.runs["client"].wait(5), 3)
        self.daemons["client"].wait(5)
        self.assertEqual(self.addresses("client"), ["192.0.2.50"])
        (self.lab.directory / "bus" / "client.socket").unlink(missing_ok=True)
        self.peer("client", "dbus-daemon", f"--config-file={self.lab.directory}/bus/client.conf", "--nofork")
        lab.eventually(lambda: (self.lab.directory / "bus" / "client.socket").exists(), 5, "bus")
        self.start_daemon("client")
        self.start_run("client")
        lab.eventually(self.held, BACK, "lease held again")
        self.assertEqual(self.addresses("client"), ["192.0.2.50"])

    def test_the_state_file_is_whole_wherever_its_writer_is_killed(self):
        self.start_all()
        lab.eventually(lambda: '"mac"' in self.state("server").read_text(), 5, "table on the disk")
        self.kill(self.runs["server"])
        before = json.loads(self.state("server").read_text())["interfaces"][0]["leases"]
        for call, path in (("openat", ".new"), ("write", ".new"), ("fsync", ".new"), ("rename", ".new")):
            with self.subTest(call=call):
                self.files["server"].write_text(SERVER.format(lease=f"{len(call)}h"))
                self.start_run("server", "strace", "-o", "/dev/null", "-P", f"{self.state('server')}{path}",
                               "-e", f"trace={call}", "-e", f"inject={call}:signal=SIGKILL")
                self.assertEqual(self.runs["server"].wait(10), -lab.signal.SIGKILL)
                kept = json.loads(self.state("server").read_text())["interfaces"][0]["leases"]
                self.assertEqual([lease["mac"] for lease in kept], [lease["mac"] for lease in before])
        self.state("server").write_text('{"kind":"ostrelctl run 1","inter')
        self.start_run("server")
        lab.eventually(lambda: "holds nothing of ours" in self.said("server"), 5, "complaint about a torn file")
        self.assertTrue(self.state("server").with_suffix(".json.bad").exists())
        lab.eventually(lambda: self.state("server").exists() and '"mac"' in self.state("server").read_text(), 5,
                       "the daemon's table")


class LargeTables(RunTest):
    LEASES = 6_000 if lab.SANITIZED else 60_000

    def lease(self, number):
        # As the daemon shows it; local times as in a lab, whose zone is the machine's.
        began = time.time() - number % 3000
        shown = [time.strftime("%a %b %e %H:%M:%S %Y", time.localtime(moment)) for moment in (began, began + 7200)]
        mac = "02:00:01:" + number.to_bytes(3, "big").hex(":")
        return {"ipv4Address": f"10.0.{1 + number // 250}.{1 + number % 250}", "mac": mac, "leaseTime": 7200,
                "leaseTimeString": shown[0], "leaseExpiryString": shown[1], "hostName": f"host-{number}"}

    def test_a_table_of_many_requests_is_given_back_whole(self):
        self.files["server"].write_text('[eth0]\nrole = "server"\naddress = "10.0.0.1/16"\n'
                                        'range = "10.0.1.0-10.0.250.254"\nlease = "2h"\n')
        leases = [self.lease(number) for number in range(self.LEASES)]
        self.state("server").write_text(json.dumps({"kind": "ostrelctl run 1", "daemon": "", "interfaces": [
            {"interface": "eth0", "request": "", "address": "", "own": "", "leases": leases}]}))
        self.start_daemon("server")
        self.start_run("server")
        bus = lab.Bus(self.lab.bus_address("server"))
        self.addCleanup(bus.close)

        def active():
            if not bus.owner():
                return None
            shown = bus.request("/", "interfaceState")["interfaceList"]
            return [(entry["server"]["state"], entry["server"]["active"]) for entry in shown]

        def await_table():
            lab.eventually(lambda: active() == [("SERVING", self.LEASES)], 30, f"{active()} {self.said('server')}")

        await_table()
        self.kill(self.daemons["server"])
        self.start_daemon("server")
        await_table()
        self.tool("server", "release", "eth0")  # and is handed over anew, with what the daemon has shown
        lab.eventually(lambda: self.said("server").count("handed over: ") == 3, 30, self.said("server"))
        await_table()
        self.assertEqual(lab.stop(self.runs["server"]), 0)
        (kept,) = json.loads(self.state("server").read_text())["interfaces"]
        self.assertEqual([(lease["ipv4Address"], lease["mac"]) for lease in kept["leases"]],
                         [(lease["ipv4Address"], lease["mac"]) for lease in leases])


class Changes(RunTest):
    def test_files_are_read_again_and_a_wrong_one_changes_nothing(self):
        resolver = self.lab.directory / "resolv.conf"
        resolver.write_text("# somebody's, and longer than what comes after it, so that something would be left of it\n")
        self.files["client"].write_text(f'resolv-conf = "{resolver}"\n{CLIENT}')
        self.files["server"].write_text(SERVER.format(lease="10m") + 'dns = ["192.0.2.3"]\n')
        self.start_all()
        lab.eventually(lambda: resolver.read_text() == "# Written by ostrelctl run\nnameserver 192.0.2.3\n", 5,
                       f"resolv.conf: {resolver.read_text()}")
        self.files["server"].write_text("[eth0]\nrole = 'server'\n")
        self.assertEqual(self.tool("server", "reload").returncode, 0)
        lab.eventually(lambda: "address is required" in self.said("server"), 5, "complaint")
        self.assertIn("what worked before goes on", self.said("server"))
        table = self.table()
        self.files["server"].write_text(SERVER.format(lease="2h").replace("192.0.2.1/", "192.0.2.2/"))
        self.assertEqual(self.tool("server", "reload").returncode, 0)
        lab.eventually(lambda: self.addresses("server") == ["192.0.2.2"] and self.table() == table, BACK,
                       "the other address, and the same table")
        self.assertEqual(lab.stop(self.runs["server"]), 0)
        self.files["server"].write_text("")
        self.start_run("server")
        lab.eventually(lambda: self.addresses("server") == [], BACK, "a table that went meanwhile is heeded")
        self.assertIn("not managed", self.tool("server", "release", "eth0").stderr)
        self.files["client"].write_text("")
        self.assertEqual(self.tool("client", "reload").returncode, 0)
        lab.eventually(lambda: self.addresses("client") == [], BACK, "nothing left")
        self.assertIn("nothing is managed", self.tool("client", "status").stdout + self.tool("client", "status").stderr)

    def test_a_daemon_that_hangs_holds_up_nothing(self):
        self.start_all()
        table = self.table()
        self.daemons["server"].send_signal(lab.signal.SIGSTOP)
        self.addCleanup(self.daemons["server"].send_signal, lab.signal.SIGCONT)
        self.files["server"].write_text(SERVER.format(lease="3h").replace("192.0.2.1/", "192.0.2.2/"))
        self.assertEqual(self.tool("server", "reload").returncode, 0)
        time.sleep(2.5)  # a call has its time, and no second one
        for count in range(1, 4):
            self.files["server"].write_text(f"[eth0]\nrole = '{count}'\n")
            self.assertEqual(self.tool("server", "reload").returncode, 0)
            lab.eventually(lambda: self.said("server").count("what worked before goes on") == count, 1, "signal heard")
        self.daemons["server"].send_signal(lab.signal.SIGCONT)
        lab.eventually(lambda: self.addresses("server") == ["192.0.2.2"] and self.table() == table, BACK,
                       f"as the last good file says: {self.said('server')}")
        self.daemons["server"].send_signal(lab.signal.SIGSTOP)
        self.assertEqual(lab.stop(self.runs["server"], timeout=3), 0)

    def test_what_another_process_applies_is_left_to_it_until_it_ends(self):
        self.start_daemon("client")
        other = self.peer("client", OSTRELCTL, "apply", "eth0")
        lab.eventually(lambda: "not managed" in other.output.read_text(), 5, "the first to apply")
        self.start_daemon("server")
        for host in self.hosts:
            self.start_run(host)
        self.await_address(10)
        self.assertIn(f"applied already, by process {other.pid}", self.said("client"))
        self.kill(other)
        self.tool("client", "reload")
        lab.eventually(lambda: self.said("client").count("+ address 192.0.2.50/24") == 1, BACK, self.said("client"))
        self.assertRegex(self.tool("client", "apply", "eth0").stderr, f"by process {self.runs['client'].pid}")

    def test_interfaces_flap_go_are_renamed_and_come_back(self):
        self.files["client"].write_text(CLIENT.replace("[eth0]", '["eth*"]'))
        self.start_all()
        for _ in range(60):
            self.lab.ip("client", "link set eth0 down")
            self.lab.ip("client", "link set eth0 up")
        self.await_address(BACK + 2)  # the link has to be steady for a moment
        self.lab.ip("client", "link set eth0 down")
        self.lab.ip("client", "link set eth0 name lan0")
        lab.eventually(lambda: "not managed" in self.tool("client", "status", "lan0").stderr, BACK, lambda: f"lan0 let go: {self.said('client')}")
        self.lab.ip("client", "link set lan0 name eth0")
        self.await_address(10)
        self.lab.ip("client", "link delete eth0")
        time.sleep(0.1)
        self.lab.plug("client", 1)
        self.await_address(10)
        self.tool("client", "release", "eth0")
        self.await_address(10)


if __name__ == "__main__":
    lab.main()
