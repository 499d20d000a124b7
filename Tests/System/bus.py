"""A bus connection for tests, over libsystemd's sd-bus: calls, and the signals sent to this connection.

A request to the daemon is one text and its answer another; `request` takes and gives JSON values, `call` texts of any
kind. A refusal by the bus or by the called side is a BusError that carries the error's name.
"""
import ctypes
import errno
import json
import time

SERVICE = "org.ostrel.dhcp"

_sd = ctypes.CDLL("libsystemd.so.0", use_errno=True)


class _Error(ctypes.Structure):
    _fields_ = [("name", ctypes.c_char_p), ("message", ctypes.c_char_p), ("need_free", ctypes.c_int)]


_sd.sd_bus_request_name.argtypes = [ctypes.c_void_p, ctypes.c_char_p, ctypes.c_uint64]
for _name in ("sd_bus_message_get_path", "sd_bus_message_get_member", "sd_bus_message_get_interface"):
    getattr(_sd, _name).restype = ctypes.c_char_p
    getattr(_sd, _name).argtypes = [ctypes.c_void_p]
for _name in ("sd_bus_flush_close_unref", "sd_bus_message_unref"):
    getattr(_sd, _name).restype = ctypes.c_void_p
    getattr(_sd, _name).argtypes = [ctypes.c_void_p]


class BusError(Exception):
    def __init__(self, name, message):
        super().__init__(f"{name}: {message}")
        self.name = name


def _check(result):
    if result < 0:
        raise BusError("errno", str(-result))
    return result


def interface_of(category):
    return SERVICE if category == "/" else f"{SERVICE}.{category[1:]}"


class Bus:
    def __init__(self, address):
        self._bus = ctypes.c_void_p()
        _check(_sd.sd_bus_new(ctypes.byref(self._bus)))
        _check(_sd.sd_bus_set_address(self._bus, address.encode()))
        _check(_sd.sd_bus_set_bus_client(self._bus, 1))
        _check(_sd.sd_bus_start(self._bus))

    def close(self):
        _sd.sd_bus_flush_close_unref(self._bus)
        self._bus = None

    def raw_call(self, destination, path, interface, member, *texts, timeout=10):
        """Calls with string arguments; gives the reply's first string, or None."""
        message, reply, error = ctypes.c_void_p(), ctypes.c_void_p(), _Error()
        _check(_sd.sd_bus_message_new_method_call(self._bus, ctypes.byref(message), destination.encode(), path.encode(),
                                                  interface.encode(), member.encode()))
        try:
            for text in texts:
                _check(_sd.sd_bus_message_append_basic(message, ctypes.c_char(b"s"), text.encode()))
            result = _sd.sd_bus_call(self._bus, message, ctypes.c_uint64(int(timeout * 1e6)), ctypes.byref(error),
                                     ctypes.byref(reply))
            if result < 0:
                raise BusError((error.name or b"errno").decode(), (error.message or b"%d" % -result).decode())
            return self._first_string(reply)
        finally:
            _sd.sd_bus_error_free(ctypes.byref(error))
            _sd.sd_bus_message_unref(reply)
            _sd.sd_bus_message_unref(message)

    @staticmethod
    def _first_string(message):
        text = ctypes.c_char_p()
        if _sd.sd_bus_message_read_basic(message, ctypes.c_char(b"s"), ctypes.byref(text)) <= 0:
            return None
        return text.value.decode()

    def post(self, destination, category, method, text):
        """Sends what a subscriber would take for a post of the daemon; gives no word of a refusal."""
        signal = ctypes.c_void_p()
        _check(_sd.sd_bus_message_new_signal(self._bus, ctypes.byref(signal), category.encode(),
                                             interface_of(category).encode(), f"{method}Update".encode()))
        try:
            _check(_sd.sd_bus_message_append_basic(signal, ctypes.c_char(b"s"), text.encode()))
            _check(_sd.sd_bus_send_to(self._bus, signal, destination.encode(), None))
        finally:
            _sd.sd_bus_message_unref(signal)

    def name(self):
        """The connection's unique name."""
        name = ctypes.c_char_p()
        _check(_sd.sd_bus_get_unique_name(self._bus, ctypes.byref(name)))
        return name.value.decode()

    def may_own(self, name=SERVICE):
        """Takes the name and gives it back; False when the bus doesn't let this connection have it."""
        result = _sd.sd_bus_request_name(self._bus, name.encode(), 0)
        if result == -errno.EACCES:
            return False
        _check(result)
        _check(_sd.sd_bus_release_name(self._bus, name.encode()))
        return True

    def call(self, category, method, text, timeout=10):
        return self.raw_call(SERVICE, category, interface_of(category), method, text, timeout=timeout)

    def request(self, category, method, **keys):
        return json.loads(self.call(category, method, json.dumps(keys)))

    def owner(self, name=SERVICE):
        """The connection that owns the name, or None."""
        try:
            return self.raw_call("org.freedesktop.DBus", "/", "org.freedesktop.DBus", "GetNameOwner", name)
        except BusError as error:
            if error.name.endswith("NameHasNoOwner"):
                return None
            raise

    def watch_name(self, name=SERVICE):
        """Asks for the signals that tell of a change of the name's owner."""
        rule = f"type='signal',interface='org.freedesktop.DBus',member='NameOwnerChanged',arg0='{name}'"
        self.raw_call("org.freedesktop.DBus", "/", "org.freedesktop.DBus", "AddMatch", rule)

    def next_signal(self, timeout, member=None):
        """(path, member, first string) of the next signal, of that name if given; None when the time is over."""
        deadline = time.monotonic() + timeout
        while (left := deadline - time.monotonic()) > 0:
            message = ctypes.c_void_p()
            if _check(_sd.sd_bus_process(self._bus, ctypes.byref(message))) == 0:
                _sd.sd_bus_wait(self._bus, ctypes.c_uint64(int(left * 1e6)))
                continue
            if not message:
                continue
            try:
                found = (_sd.sd_bus_message_get_member(message) or b"").decode()
                path = (_sd.sd_bus_message_get_path(message) or b"").decode()
                if _sd.sd_bus_message_is_signal(message, None, None) > 0 and member in (None, found):
                    return path, found, self._first_string(message)
            finally:
                _sd.sd_bus_message_unref(message)
        return None

    def fileno(self):
        return _check(_sd.sd_bus_get_fd(self._bus))

    def count_posts(self, limit=100, method=b"leaseInformation"):
        """Handles what has arrived, at most so many messages; gives the number of the method's posts among them."""
        posts, message = 0, ctypes.c_void_p()
        for _ in range(limit):
            if _check(_sd.sd_bus_process(self._bus, ctypes.byref(message))) == 0:
                break
            if message:
                posts += _sd.sd_bus_message_is_signal(message, None, method + b"Update") > 0
                _sd.sd_bus_message_unref(message)
                message = ctypes.c_void_p()
        return posts

    def next_post(self, category, method, timeout):
        """The next post under category and method, or None when the time is over."""
        deadline = time.monotonic() + timeout
        while (left := deadline - time.monotonic()) > 0:
            signal = self.next_signal(left, f"{method}Update")
            if signal and signal[0] == category:
                return json.loads(signal[2])
        return None
