"""What tests see and say on the wire: sockets in another namespace, captures, and a DHCP server that does as told.

Frames are read here only as far as a test needs to wait for one. Whether a captured frame is right is not for this file
to say: `Capture.dissect` asks tshark, which nobody here wrote.
"""
import ctypes
import os
import socket
import struct
import subprocess
import threading
import time

ETH_P_ALL = 0x0003
SO_TIMESTAMPNS = 35
DISCOVER, OFFER, REQUEST, DECLINE, ACK, NAK, RELEASE = 1, 2, 3, 4, 5, 6, 7
BROADCAST = "ff:ff:ff:ff:ff:ff"

_libc = ctypes.CDLL(None, use_errno=True)


def packet_socket(namespace, interface):
    """A raw socket on an interface of another network namespace; the thread that opens it never comes back."""
    opened = []

    def enter():
        with open(namespace) as target:
            if _libc.setns(target.fileno(), 0x40000000) != 0:  # CLONE_NEWNET
                raise OSError(ctypes.get_errno(), "setns")
        opened.append(socket.socket(socket.AF_PACKET, socket.SOCK_RAW, socket.htons(ETH_P_ALL)))
        opened[0].bind((interface, ETH_P_ALL))

    thread = threading.Thread(target=enter)
    thread.start()
    thread.join()
    return opened[0]


def mac_text(octets):
    return ":".join(f"{octet:02x}" for octet in octets)


class Frame:
    """One frame, read far enough to tell which it is: arp is its operation or None, dhcp its message type or None."""

    def __init__(self, octets, when):
        self.octets, self.when = octets, when
        self.destination, self.source = mac_text(octets[:6]), mac_text(octets[6:12])
        self.arp = self.dhcp = None
        kind = octets[12:14]
        if kind == b"\x08\x06":
            self.arp = octets[21]
            self.sender, self.target = socket.inet_ntoa(octets[28:32]), socket.inet_ntoa(octets[38:42])
        elif kind == b"\x08\x00" and octets[23] == 17 and octets[36:38] in (b"\x00\x43", b"\x00\x44"):
            self._read_dhcp(octets)

    def _read_dhcp(self, octets):
        self.ip_source, self.ip_destination = socket.inet_ntoa(octets[26:30]), socket.inet_ntoa(octets[30:34])
        bootp = octets[42:]
        self.bootp, self.xid, self.options = bootp, bootp[4:8], {}
        self.ciaddr, self.yiaddr = socket.inet_ntoa(bootp[12:16]), socket.inet_ntoa(bootp[16:20])
        rest = bootp[240:]
        while len(rest) > 2 and rest[0] != 255:
            if rest[0] == 0:
                rest = rest[1:]
                continue
            self.options.setdefault(rest[0], rest[2:2 + rest[1]])
            rest = rest[2 + rest[1]:]
        self.dhcp = self.options.get(53, b"\0")[0]

    def __repr__(self):
        what = f"ARP {self.arp} {self.sender} asks {self.target}" if self.arp else f"DHCP {self.dhcp}"
        return f"<{self.when:.2f} {self.source} > {self.destination} {what}>"


class Capture:
    """Records a port's frames until closed: in `frames`, with the monotonic time, and in a pcap file for tshark."""

    def __init__(self, namespace, interface, path):
        self.path, self.frames, self._arrived = path, [], threading.Condition()
        self._socket = packet_socket(namespace, interface)
        self._socket.setsockopt(socket.SOL_SOCKET, SO_TIMESTAMPNS, 1)
        self._file = open(path, "wb", buffering=0)
        self._file.write(struct.pack("<IHHiIII", 0xA1B2C3D4, 2, 4, 0, 0, 65535, 1))
        self._stopping = False
        self._thread = threading.Thread(target=self._record, daemon=True)
        self._thread.start()

    def _record(self):
        self._socket.settimeout(0.2)
        while not self._stopping:
            try:
                octets, notes, _, _ = self._socket.recvmsg(65535, 64)
            except OSError:  # nothing came, or the port is down for now
                continue
            second, nanosecond = struct.unpack("qq", notes[0][2])  # when the kernel saw it, on the wall clock
            self._file.write(struct.pack("<IIII", second, nanosecond // 1000, len(octets), len(octets)) + octets)
            when = second + nanosecond / 1e9 - time.time() + time.monotonic()
            with self._arrived:
                self.frames.append(Frame(octets, when))
                self._arrived.notify_all()

    def close(self):
        self._stopping = True
        self._thread.join()
        self._socket.close()
        self._file.close()

    def wait(self, what, matches, timeout, after=None):
        """The first frame that matches, of those after the frame `after`; none within the time is a failure."""
        deadline = time.monotonic() + timeout
        with self._arrived:
            while True:
                start = self.frames.index(after) + 1 if after else 0
                found = next((frame for frame in self.frames[start:] if matches(frame)), None)
                if found:
                    return found
                left = deadline - time.monotonic()
                if left <= 0:
                    seen = "\n".join(map(repr, self.frames[-20:]))
                    raise AssertionError(f"not on the wire within {timeout} s: {what}; the last frames:\n{seen}")
                self._arrived.wait(left)

    def wait_dhcp(self, kind, timeout, after=None, **fields):
        def matches(frame):
            return frame.dhcp == kind and all(getattr(frame, name) == value for name, value in fields.items())

        return self.wait(f"DHCP message {kind} {fields}", matches, timeout, after)

    def count(self, **fields):
        with self._arrived:
            return sum(all(getattr(frame, name) == value for name, value in fields.items()) for frame in self.frames)

    def dissect(self, display_filter, *fields):
        """tshark's reading of the frames that pass a display filter: a list of texts for each frame."""
        command = ["tshark", "-n", "-r", self.path, "-o", "ip.check_checksum:TRUE", "-o", "udp.check_checksum:TRUE",
                   "-Y", display_filter, "-T", "fields", "-E", "separator=/t", "-E", "occurrence=a"]
        for field in fields:
            command += ["-e", field]
        result = subprocess.run(command, check=True, capture_output=True, text=True,
                                env={**os.environ, "HOME": "/nonexistent"})
        return [line.split("\t") for line in result.stdout.splitlines()]


def checksum(octets):
    total = sum(struct.unpack(f">{(len(octets) + 1) // 2}H", octets + b"\0" * (len(octets) % 2)))
    while total > 0xFFFF:
        total = (total & 0xFFFF) + (total >> 16)
    return total ^ 0xFFFF


def udp_frame(source, destination, ip_source, ip_destination, ports, payload):
    addresses = socket.inet_aton(ip_source) + socket.inet_aton(ip_destination)
    length = 8 + len(payload)
    udp = struct.pack(">HHHH", *ports, length, 0)
    total = checksum(addresses + struct.pack(">HH", 17, length) + udp + payload) or 0xFFFF
    udp = struct.pack(">HHHH", *ports, length, total)
    ip = struct.pack(">BBHHHBBH", 0x45, 0, 20 + length, 0, 0, 64, 17, 0)
    ip = ip[:10] + struct.pack(">H", checksum(ip + addresses)) + addresses
    return bytes.fromhex((destination + source).replace(":", "")) + b"\x08\x00" + ip + udp + payload


def option(code, octets):
    return bytes([code, len(octets)]) + octets


def seconds(value):
    return struct.pack(">I", value)


class ScriptedServer:
    """A DHCP server that answers at once, with the address and options it was given, whomever asks.

    `mutes(frame)` tells which requests it leaves unanswered. It runs until closed.
    """

    MAC, ADDRESS = "02:00:00:00:00:02", "192.0.2.1"

    def __init__(self, namespace, address="192.0.2.50", lease=3600, extra=b"", mutes=lambda frame: False):
        self.address, self.mutes = address, mutes
        self.options = option(51, seconds(lease)) + option(1, bytes([255, 255, 255, 0])) + extra
        self._socket = packet_socket(namespace, "eth0")
        self._stopping = False
        self._thread = threading.Thread(target=self._serve, daemon=True)
        self._thread.start()

    def _serve(self):
        self._socket.settimeout(0.2)
        while not self._stopping:
            try:
                frame = Frame(self._socket.recv(65535), time.monotonic())
            except TimeoutError:
                continue
            if frame.dhcp in (DISCOVER, REQUEST) and frame.source != self.MAC and not self.mutes(frame):
                self._socket.send(self._answer(frame, OFFER if frame.dhcp == DISCOVER else ACK))

    def _answer(self, frame, kind):
        server = socket.inet_aton(self.ADDRESS)
        bootp = (b"\x02\x01\x06\x00" + frame.xid + bytes(8) + socket.inet_aton(self.address) + bytes(8)
                 + frame.bootp[28:44] + bytes(192) + b"\x63\x82\x53\x63" + option(53, bytes([kind]))
                 + option(54, server) + self.options + b"\xff")
        return udp_frame(self.MAC, frame.source, self.ADDRESS, self.address, (67, 68), bootp)

    def close(self):
        self._stopping = True
        self._thread.join()
        self._socket.close()
