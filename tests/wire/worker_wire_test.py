#!/usr/bin/env python3
"""The worker's wire format, spoken by a peer written from docs/ alone.

    python3 worker_wire_test.py PATH-TO-tolvClientWorker [unittest arguments]

The worker admits only `veltrane-protocol.exe` from its own folder, so this
script stages a private folder holding a copy of the worker and a copy of the
Python interpreter under that name, and runs itself again with that copy.
Every test starts its own worker there, with its own runtime folder, TMPDIR
and settings store.
"""

import array
import ctypes
import ctypes.util
import fcntl
import mmap
import os
import random
import select
import shutil
import socket
import struct
import subprocess
import sys
import tempfile
import time
import unittest
import uuid
import zlib

PEER_NAME = "veltrane-protocol.exe"
STAGED_ENV = "TOLV_WIRE_STAGED"
TIMEOUT = 30.0          # any single wait; only reached when something is wrong
PROMPT_EXIT = 8.0       # below the streams' 10 s close timer

# Bootstrap
PROC_V2 = 1
REQUEST_HEAD = struct.Struct("<I16sIQIQI")
REPLY = struct.Struct("<IIIQI11QIQII")
MAX_SECTION = 0xFFFFF
RPC_BAD_STUB_DATA, RPC_PROC_OUT_OF_RANGE = 1783, 1745
ST_OK, ST_INVALID_PARAM, ST_ACCESS_DENIED = 0, 5, 7
NO_HANDLE = 0xFFFFFFFFFFFFFFFF

# Transport and blocks
TRANSFER = struct.Struct("<IIQIII")   # reserved, crc, sequence, reserved, size, blocks
BLOCK = struct.Struct("<IIIQQII")     # type, flags, status, source, destination, blockLength, payloadLength
FIRST_HEADER, NEXT_HEADER = 40, 36
OPEN, OPEN_ACK, CLOSE, CLOSE_ACK, SHUTDOWN, MSG = 1, 2, 3, 4, 5, 6
F_FIRST, F_LAST = 0x1, 0x2

# Drive records
REQUEST = struct.Struct("<QIIQ")      # ioContext, messageCode, drive, reserved
REPLY_HEAD = struct.Struct("<QIIQII")  # ioContext, status, reserved, information, payloadLength, reserved
QUERY_INFO = struct.Struct("<QB3sIIIII")
QUERY, RELEASE, READ, WRITE = 0x12, 0x13, 0x26, 0x27
NO_REPLY_CONTEXT = 0xBEEFBEEF
STATUS_UNSUCCESSFUL = 0xC0000001
STATUS_INVALID_HANDLE = 0xC0000008
STATUS_INVALID_PARAMETER = 0xC000000D
STATUS_END_OF_FILE = 0xC0000011


class LinkFailed(Exception):
    """The worker signalled an error or stop event, or exited."""


def ev_signal(fd):
    os.write(fd, struct.pack("<Q", 1))


def ev_take(fd):
    try:
        return struct.unpack("<Q", os.read(fd, 8))[0]
    except BlockingIOError:
        return 0


SEALS = fcntl.F_SEAL_SHRINK | fcntl.F_SEAL_GROW


def whole_pages(size):
    return (size + mmap.PAGESIZE - 1) // mmap.PAGESIZE * mmap.PAGESIZE


def fd_kind(fd):
    return os.readlink("/proc/self/fd/%d" % fd)


def recv_with_fds(sock, timeout=TIMEOUT):
    r, _, _ = select.select([sock], [], [], timeout)
    if not r:
        raise TimeoutError("no bootstrap reply")
    msg, anc, flags, _ = sock.recvmsg(4096, socket.CMSG_SPACE(16 * 4))
    fds = array.array("i")
    for level, kind, data in anc:
        if level == socket.SOL_SOCKET and kind == socket.SCM_RIGHTS:
            fds.frombytes(data[:len(data) - len(data) % fds.itemsize])
    return msg, list(fds), flags


CLIENT_STREAM_ID = 0x533A91F200000001


def bootstrap_request(guid, name="tolvCommands", section=MAX_SECTION, link_flags=0, stream_flags=0):
    return (REQUEST_HEAD.pack(PROC_V2, guid.bytes_le, 1, 0x4C3A91F200000001, link_flags,
                              CLIENT_STREAM_ID, stream_flags)
            + name.encode("utf-16-le") + b"\0\0" + struct.pack("<I", section))


def transfer_bytes(blocks, seq, count=None, size=None, crc_xor=0):
    body = b"".join(blocks)
    size = TRANSFER.size + len(body) if size is None else size
    t = bytearray(TRANSFER.pack(0, 0, seq, 0, size,
                                len(blocks) if count is None else count) + body)
    # The CRC covers what trxSize claims, so a wrong size is refused for the size alone.
    struct.pack_into("<I", t, 4, zlib.crc32(t[:size]) ^ crc_xor)
    return bytes(t)


def first_block(kind, src, dst, payload, flags=F_FIRST | F_LAST, total=None):
    return (BLOCK.pack(kind, flags, 0, src, dst, FIRST_HEADER + len(payload), len(payload))
            + struct.pack("<I", len(payload) if total is None else total) + payload)


def next_block(src, dst, payload, flags):
    return BLOCK.pack(MSG, flags, 0, src, dst, NEXT_HEADER + len(payload), len(payload)) + payload


class Channel:
    """One direction: a section and its four eventfds, as handed over."""

    def __init__(self, fds, size):
        self.section, self.ready, self.free, self.error, self.stop = fds
        self.size = size
        # Only a section that can neither shrink nor grow is safe to map.
        seals = fcntl.fcntl(self.section, fcntl.F_GET_SEALS)
        if seals & SEALS != SEALS:
            raise AssertionError("section seals %#x" % seals)
        if os.fstat(self.section).st_size != whole_pages(size):
            raise AssertionError("section of %d bytes for %d" % (os.fstat(self.section).st_size, size))
        self.map = mmap.mmap(self.section, size)


class Link:
    """The client's side of one shared-memory link."""

    def __init__(self, rx, tx, server_process):
        self.rx, self.tx, self.server_process = rx, tx, server_process
        self.room = tx.size - TRANSFER.size
        self.tx_seq = 0
        self.rx_seq = 0
        self.tx_free = False
        self.blocks = []
        self.transfers_received = 0
        # The worker takes the first transfer only after this.
        ev_signal(self.rx.free)

    def failure_fds(self):
        return [self.tx.error, self.tx.stop, self.server_process]

    def wait(self, wanted, timeout=TIMEOUT):
        deadline = time.monotonic() + timeout
        while True:
            left = deadline - time.monotonic()
            if left <= 0:
                raise TimeoutError("the worker did not answer within %.0f s" % timeout)
            r, _, _ = select.select(wanted + self.failure_fds(), [], [], left)
            if any(f in wanted for f in r):
                return r
            if r:
                raise LinkFailed("worker signalled %s" % r)

    def write_transfer(self, data):
        # Replies that arrive meanwhile are taken, so neither side waits on a full section.
        while not self.tx_free:
            r = self.wait([self.tx.free, self.rx.ready])
            if self.rx.ready in r:
                self.read_transfer()
            if self.tx.free in r and ev_take(self.tx.free):
                self.tx_free = True
        assert len(data) <= self.tx.size
        self.tx_free = False
        self.tx.map[:len(data)] = data
        ev_signal(self.tx.ready)

    def send_transfer(self, blocks):
        self.tx_seq += 1
        self.write_transfer(transfer_bytes(blocks, self.tx_seq))

    def read_transfer(self):
        ev_take(self.rx.ready)
        size = struct.unpack_from("<I", self.rx.map, 20)[0]
        if not 64 <= size <= self.rx.size:
            raise AssertionError("transfer size %d from the worker" % size)
        t = bytearray(self.rx.map[:size])
        ev_signal(self.rx.free)
        _, crc, seq, _, _, count = TRANSFER.unpack_from(t)
        struct.pack_into("<I", t, 4, 0)
        if zlib.crc32(t) != crc:
            raise AssertionError("transfer %d from the worker has a bad CRC" % seq)
        if seq != self.rx_seq + 1:
            raise AssertionError("transfer %d after %d" % (seq, self.rx_seq))
        self.rx_seq = seq
        self.transfers_received += 1
        pos = TRANSFER.size
        for _ in range(count):
            kind, flags, status, src, dst, length, payload = BLOCK.unpack_from(t, pos)
            header = FIRST_HEADER if flags & F_FIRST else NEXT_HEADER
            if length != header + payload or pos + length > size or flags & 0xFFFC:
                raise AssertionError("malformed block from the worker at %d" % pos)
            total = struct.unpack_from("<I", t, pos + 36)[0] if flags & F_FIRST else None
            self.blocks.append(dict(kind=kind, flags=flags, status=status, src=src, dst=dst,
                                    total=total, payload=bytes(t[pos + header:pos + length])))
            pos += length
        if pos != size:
            raise AssertionError("transfer of %d bytes holds blocks of %d" % (size, pos))

    def next_block(self, timeout=TIMEOUT):
        while not self.blocks:
            self.wait([self.rx.ready], timeout)
            self.read_transfer()
        return self.blocks.pop(0)

    def nothing_pending(self):
        return not self.blocks and not select.select([self.rx.ready], [], [], 0)[0]


class Stream:
    """One stream of the link: the client's id and the worker's."""

    def __init__(self, link, own_id, peer_id):
        self.link, self.id, self.peer = link, own_id, peer_id

    def send(self, payload):
        room = self.link.room
        if FIRST_HEADER + len(payload) <= room:
            self.link.send_transfer([first_block(MSG, self.id, self.peer, payload)])
            return
        # Fill each transfer; the rest goes on in 36-byte-header blocks.
        pos = room - FIRST_HEADER
        self.link.send_transfer([first_block(MSG, self.id, self.peer, payload[:pos],
                                             flags=F_FIRST, total=len(payload))])
        while pos < len(payload):
            n = min(room - NEXT_HEADER, len(payload) - pos)
            flags = F_LAST if pos + n == len(payload) else 0
            self.link.send_transfer([next_block(self.id, self.peer, payload[pos:pos + n], flags)])
            pos += n

    def recv(self, timeout=TIMEOUT):
        """One whole message: (type, payload)."""
        b = self.link.next_block(timeout)
        head = b
        if not b["flags"] & F_FIRST or (b["src"], b["dst"]) != (self.peer, self.id):
            raise AssertionError("unexpected block %r" % {k: v for k, v in b.items() if k != "payload"})
        parts = [b["payload"]]
        while not b["flags"] & F_LAST:
            b = self.link.next_block(timeout)
            if b["flags"] & F_FIRST or (b["src"], b["dst"]) != (self.peer, self.id):
                raise AssertionError("block out of order")
            parts.append(b["payload"])
        data = b"".join(parts)
        if len(data) != head["total"]:
            raise AssertionError("message of %d bytes announced %d" % (len(data), head["total"]))
        return head["kind"], data

    def close(self):
        self.link.send_transfer([first_block(CLOSE, self.id, self.peer, b"", total=0)])


class DriveClient:
    def __init__(self, stream):
        self.stream = stream

    def send(self, context, code, letter, payload=b""):
        self.stream.send(REQUEST.pack(context, code, ord(letter), 0) + payload)

    def reply(self):
        kind, data = self.stream.recv()
        assert kind == MSG, kind
        assert len(data) >= REPLY_HEAD.size, data
        context, status, reserved, information, length, reserved2 = REPLY_HEAD.unpack_from(data)
        payload = data[REPLY_HEAD.size:]
        assert (reserved, reserved2) == (0, 0)
        assert length == len(payload), (length, len(payload))
        return dict(context=context, status=status, information=information, payload=payload)

    def query(self, context, letter, path):
        self.send(context, QUERY, letter, struct.pack("<I", 0) + path.encode("utf-16-le") + b"\0\0")
        return self.reply()

    def read(self, context, letter, offset, length):
        self.send(context, READ, letter, struct.pack("<IIQI", 0, 0, offset, length))
        return self.reply()

    def write(self, context, letter, offset, data, reply=True):
        self.send(context, WRITE, letter, struct.pack("<IIQII", 0, 0, offset, len(data), 0) + data)
        return self.reply() if reply else None

    def release(self, letter):
        self.send(0, RELEASE, letter)


class Inotify:
    def __init__(self, folder):
        libc = ctypes.CDLL(ctypes.util.find_library("c"), use_errno=True)
        self.fd = libc.inotify_init1(os.O_CLOEXEC | os.O_NONBLOCK)
        if self.fd < 0 or libc.inotify_add_watch(self.fd, os.fsencode(folder), 0x100 | 0x80) < 0:
            raise OSError(ctypes.get_errno(), "inotify on " + folder)

    def drain(self):
        try:
            os.read(self.fd, 65536)
        except BlockingIOError:
            pass


class WorkerProcess:
    """One worker in a private runtime folder, TMPDIR and settings store."""

    def __init__(self, worker_path, root):
        self.dir = tempfile.mkdtemp(prefix="w", dir=root)
        self.runtime = self._folder("run")
        self.tmp = self._folder("tmp")
        self.settings = self._folder("lxreg")
        self.guid = uuid.uuid4()
        self.socket_path = os.path.join(self.runtime, str(self.guid))
        self.ready_path = os.path.join(self.runtime, "ipclibLinkReady(%s)" % self.guid)
        if len(os.fsencode(self.socket_path)) >= 108:
            raise unittest.SkipTest("socket path too long for AF_UNIX: " + self.socket_path)
        self.fds = []
        env = dict(os.environ, IPCLIB_RUNTIME_DIR=self.runtime, TMPDIR=self.tmp, LXREG_ROOT=self.settings)
        self.output = open(os.path.join(self.dir, "output"), "a+")
        self.proc = None
        self.pidfd = -1
        watch = Inotify(self.runtime)
        try:
            self.proc = subprocess.Popen([worker_path, str(self.guid)], env=env, stdin=subprocess.DEVNULL,
                                         stdout=self.output, stderr=self.output)
            self.pidfd = os.pidfd_open(self.proc.pid)
            deadline = time.monotonic() + TIMEOUT
            while not os.path.exists(self.ready_path):
                r, _, _ = select.select([watch.fd, self.pidfd], [], [], max(0.0, deadline - time.monotonic()))
                if self.pidfd in r or not r:
                    raise AssertionError("the worker did not start to accept:\n" + self.text())
                watch.drain()
        except BaseException:
            self.stop()
            raise
        finally:
            os.close(watch.fd)

    def _folder(self, name):
        path = os.path.join(self.dir, name)
        os.mkdir(path, 0o700)
        return path

    def keep(self, fds):
        self.fds.extend(fds)
        return fds

    def text(self):
        self.output.flush()
        self.output.seek(0)
        return self.output.read()

    def call(self, request, fds=()):
        """One bootstrap datagram, and the reply with its descriptors."""
        with socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET) as s:
            s.connect(self.socket_path)
            anc = [(socket.SOL_SOCKET, socket.SCM_RIGHTS, array.array("i", fds))] if fds else []
            s.sendmsg([request], anc)
            msg, got, flags = recv_with_fds(s)
        self.keep(got)
        return msg, got, flags

    def connect(self, section=MAX_SECTION):
        """A version-2 bootstrap, checked only as far as needed to use the link."""
        pipe_read, pipe_write = os.pipe()
        self.keep([pipe_write])
        try:
            msg, fds, _ = self.call(bootstrap_request(self.guid, section=section), [pipe_read])
        finally:
            os.close(pipe_read)
        reply = REPLY.unpack(msg)
        assert reply[0] == 0 and reply[-1] == ST_OK and len(fds) == 11, (reply, fds)
        size = reply[1]
        self.link = Link(Channel(fds[0:5], size), Channel(fds[5:10], size), fds[10])
        return Stream(self.link, CLIENT_STREAM_ID, reply[17])

    def wait_exit(self, timeout=TIMEOUT):
        """The exit code, once the server process descriptor says it ended."""
        r, _, _ = select.select([self.pidfd], [], [], timeout)
        if not r:
            raise AssertionError("the worker is still running after %.0f s" % timeout)
        return self.proc.wait()

    def stop(self):
        if self.proc is not None and self.proc.poll() is None:
            self.proc.kill()
            self.proc.wait()
        for fd in self.fds + [self.pidfd]:
            try:
                os.close(fd)
            except OSError:
                pass
        self.output.close()


class WorkerTestCase(unittest.TestCase):
    worker_path = None
    root = None

    def setUp(self):
        self.worker = WorkerProcess(self.worker_path, self.root)
        self.addCleanup(self.worker.stop)

    def data_file(self, size, name="disk.img"):
        path = os.path.join(self.worker.dir, name)
        data = random.Random(size).randbytes(size)
        with open(path, "wb") as f:
            f.write(data)
        return path, data

    def close_and_expect_exit(self, stream):
        """Close the stream; the worker answers and, its last stream down, exits 0."""
        stream.close()
        kind, data = stream.recv()
        self.assertEqual((kind, data), (CLOSE_ACK, b""))
        self.expect_quit(closed_link=True)

    def expect_quit(self, closed_link):
        """The worker quits at once with 0; it signals stop only when it closed the link itself."""
        link = self.worker.link
        started = time.monotonic()
        if closed_link:
            self.assertTrue(select.select([link.tx.stop], [], [], PROMPT_EXIT)[0], "no stop event")
        self.assertEqual(self.worker.wait_exit(), 0, self.worker.text())
        self.assertLess(time.monotonic() - started, PROMPT_EXIT)
        if not closed_link:
            self.assertFalse(select.select([link.tx.stop], [], [], 0)[0], "stop signalled back")
        self.assertFalse(os.path.exists(self.worker.ready_path))
        self.assertFalse(select.select([link.tx.error], [], [], 0)[0], "error event on a clean end")

    def expect_link_failed(self):
        """The worker refuses a transfer: error, then stop, nothing delivered, exit 0."""
        link = self.worker.link
        r, _, _ = select.select([link.tx.error, link.rx.ready], [], [], TIMEOUT)
        self.assertEqual(r, [link.tx.error], "no error event")
        self.assertTrue(select.select([link.tx.stop], [], [], TIMEOUT)[0], "no stop event")
        self.assertEqual(self.worker.wait_exit(), 0, self.worker.text())
        self.assertTrue(link.nothing_pending(), "the worker answered a refused transfer")


class CapturedQueryTest(unittest.TestCase):
    """The encoder against the query and reply captured byte by byte in docs/peer-protocol.md."""

    CLIENT, SERVER = 0x533A91F200000001, 0x530F6B9500000001

    def test_request_datagram(self):
        guid = uuid.UUID("9f0e5c6a-2b7d-4c1e-8a34-5d6f7e8091a2")
        datagram = bootstrap_request(guid)
        self.assertEqual(len(datagram), 78)
        self.assertEqual(datagram[:24].hex(), "01000000" "6a5c0e9f7d2b1e4c8a345d6f7e8091a2" "01000000")
        self.assertEqual(datagram[-6:].hex(), "0000" "ffff0f00")

    def test_query_and_reply_transfers(self):
        record = (REQUEST.pack(1, QUERY, ord("E"), 0) + struct.pack("<I", 1)
                  + "/tmp/disk.img".encode("utf-16-le") + b"\0\0")
        query = transfer_bytes([first_block(MSG, self.CLIENT, self.SERVER, record)], 1)
        self.assertEqual((len(query), query[4:8].hex()), (124, "3aa8fefc"))
        reply = (REPLY_HEAD.pack(1, 0, 0, 0, 32, 0)
                 + QUERY_INFO.pack(0x4000000, 1, bytes(3), 0, 0, 0, 0, 0))
        answer = transfer_bytes([first_block(MSG, self.SERVER, self.CLIENT, reply)], 1)
        self.assertEqual((len(answer), answer[4:8].hex()), (132, "1f98b3fa"))


class BootstrapTest(WorkerTestCase):

    def test_version2_reply_descriptors_and_sections(self):
        pipe_read, pipe_write = os.pipe()
        self.worker.keep([pipe_write])
        request = bootstrap_request(self.worker.guid, section=0x100000,
                                    link_flags=0x00A50003, stream_flags=0x005A0001)
        msg, fds, flags = self.worker.call(request, [pipe_read])
        os.close(pipe_read)
        self.assertEqual(flags & socket.MSG_CTRUNC, 0)
        self.assertEqual(len(msg), 132)
        (rpc, size, version, link_id, link_flags, *handles,
         pid, stream_id, stream_flags, status) = REPLY.unpack(msg)
        self.assertEqual((rpc, status), (0, ST_OK))
        self.assertEqual(size, MAX_SECTION, "0x100000 is lowered to 0xFFFFF")
        self.assertEqual(version, 1)
        self.assertNotEqual(link_id, 0)
        self.assertEqual(link_flags, 0x00A50000)
        self.assertEqual(handles, list(range(11)))
        self.assertEqual(pid, self.worker.proc.pid)
        self.assertNotEqual(stream_id, 0, "stream 0 is the control stream")
        self.assertEqual(stream_flags, 0x005A0000)

        self.assertEqual(len(fds), 11)
        for section in (fds[0], fds[5]):
            self.assertTrue(fd_kind(section).startswith("/memfd:"), fd_kind(section))
            self.assertEqual(fcntl.fcntl(section, fcntl.F_GET_SEALS) & SEALS, SEALS)
            self.assertEqual(os.fstat(section).st_size, 0x100000)
            with self.assertRaises(PermissionError):
                os.ftruncate(section, 0)
        for event in fds[1:5] + fds[6:10]:
            self.assertEqual(fd_kind(event), "anon_inode:[eventfd]")
            self.assertTrue(fcntl.fcntl(event, fcntl.F_GETFL) & os.O_NONBLOCK)
        self.assertEqual(fd_kind(fds[10]), "anon_inode:[pidfd]")
        self.assertEqual(select.select([fds[7]], [], [], 0)[0], [fds[7]],
                         "the worker's side is up before the reply: the client may write")

        # Only now mapped, and used: the link works, and closes the documented way.
        link = self.worker.link = Link(Channel(fds[0:5], size), Channel(fds[5:10], size), fds[10])
        stream = Stream(link, CLIENT_STREAM_ID, stream_id)
        self.close_and_expect_exit(stream)
        self.assertEqual(select.select([fds[10]], [], [], 0)[0], [fds[10]],
                         "the server process descriptor is readable once the worker exited")

    def test_refused_calls_leave_the_worker_serving(self):
        w = self.worker

        def refused(request, fds=(), rpc=0, status=0, section=MAX_SECTION):
            msg, got, _ = w.call(request, fds)
            self.assertEqual(len(msg), 132)
            fields = REPLY.unpack(msg)
            self.assertEqual(got, [], "no descriptors on a refusal")
            if rpc:
                self.assertEqual(fields, (rpc,) + (0,) * (len(fields) - 1))
            else:
                self.assertEqual(fields, (0, section, 1, 0, 0) + (NO_HANDLE,) * 11 + (0, 0, 0, status))

        good = bootstrap_request(w.guid)
        pipe_read, pipe_write = os.pipe()
        w.keep([pipe_write])
        with self.subTest("too short"):
            refused(good[:40], [pipe_read], rpc=RPC_BAD_STUB_DATA)
        with self.subTest("one byte too long"):
            refused(good + b"\0", [pipe_read], rpc=RPC_BAD_STUB_DATA)
        with self.subTest("version 2 with a descriptor that is not a pipe"):
            refused(good, w.keep([os.open("/dev/null", os.O_RDONLY)]), rpc=RPC_BAD_STUB_DATA)
        with self.subTest("unknown procedure"):
            refused(struct.pack("<I", 7) + good[4:], [pipe_read], rpc=RPC_PROC_OUT_OF_RANGE)
        with self.subTest("version 2 without the client pipe"):
            refused(good, rpc=RPC_BAD_STUB_DATA)
        with self.subTest("version 2 with two descriptors"):
            refused(good, [pipe_read, pipe_read], rpc=RPC_BAD_STUB_DATA)
        with self.subTest("name without its ending zero"):
            refused(good[:-6] + good[-4:], [pipe_read], rpc=RPC_BAD_STUB_DATA)
        with self.subTest("another stream name"):
            refused(bootstrap_request(w.guid, name="tolvOther"), [pipe_read], status=ST_ACCESS_DENIED)
        os.close(pipe_read)

        stream = w.connect()
        self.close_and_expect_exit(stream)

    def test_section_of_zero_bytes(self):
        # Refused only after the stream was accepted: that stream goes down, and with it the worker.
        pipe_read, pipe_write = os.pipe()
        self.worker.keep([pipe_write])
        msg, fds, _ = self.worker.call(bootstrap_request(self.worker.guid, section=0), [pipe_read])
        os.close(pipe_read)
        fields = REPLY.unpack(msg)
        self.assertEqual(fds, [])
        self.assertEqual(fields, (0, 0, 1, 0, 0) + (NO_HANDLE,) * 11 + (0, 0, 0, ST_INVALID_PARAM))
        self.assertEqual(self.worker.wait_exit(PROMPT_EXIT), 0, self.worker.text())

    def test_a_program_of_another_name_is_refused(self):
        # The interpreter this copy was made from is not the admitted peer.
        code = ("import socket,struct,sys,os,array\n"
                "s=socket.socket(socket.AF_UNIX,socket.SOCK_SEQPACKET);s.connect(sys.argv[1])\n"
                "r,w=os.pipe()\n"
                "s.sendmsg([bytes.fromhex(sys.argv[2])],[(socket.SOL_SOCKET,socket.SCM_RIGHTS,array.array('i',[r]))])\n"
                "sys.stdout.write(s.recv(4096).hex())\n")
        out = subprocess.run([os.environ["TOLV_WIRE_PYTHON"], "-c", code, self.worker.socket_path,
                              bootstrap_request(self.worker.guid).hex()],
                             capture_output=True, text=True, timeout=TIMEOUT, check=True).stdout
        fields = REPLY.unpack(bytes.fromhex(out))
        self.assertEqual((fields[0], fields[-1]), (0, ST_ACCESS_DENIED))
        stream = self.worker.connect()
        self.close_and_expect_exit(stream)


class DriveTest(WorkerTestCase):

    def test_query_read_write_release_of_a_file(self):
        size = 4 << 20
        path, data = self.data_file(size)
        data = bytearray(data)
        drives = DriveClient(self.worker.connect())

        with self.subTest("query"):
            r = drives.query(0x1001, "E", path)
            self.assertEqual((r["context"], r["status"], r["information"]), (0x1001, 0, 0))
            disk_size, read_only, reserved, media, tracks, sectors, bytes_per_sector, reserved2 = \
                QUERY_INFO.unpack(r["payload"])
            self.assertEqual(disk_size, size)
            self.assertEqual(read_only, 1, "a file is reported read-only")
            self.assertEqual((media, tracks, sectors, bytes_per_sector), (0, 0, 0, 0))
            self.assertEqual((reserved, reserved2), (b"\0\0\0", 0))

        def read(context, offset, length, expected):
            r = drives.read(context, "E", offset, length)
            self.assertEqual((r["context"], r["status"], r["information"]), (context, 0, len(expected)))
            self.assertEqual(struct.unpack_from("<I", r["payload"])[0], len(expected))
            self.assertEqual(r["payload"][4:], expected)

        with self.subTest("reads"):
            read(0x2001, 0, 4096, data[:4096])
            read(0x2002, 12345, 1, data[12345:12346])
            read(0x2003, size - 100, 4096, data[size - 100:])

        with self.subTest("reads at and past the end"):
            read(0x2006, size, 0, b"")
            for context, offset in ((0x2004, size), (0x2005, size + 4096)):
                r = drives.read(context, "E", offset, 10)
                self.assertEqual((r["context"], r["status"], r["information"], r["payload"]),
                                 (context, STATUS_END_OF_FILE, 0, b""))

        with self.subTest("write with a reply"):
            block = os.urandom(8192)
            r = drives.write(0x3001, "E", 65536, block)
            self.assertEqual((r["context"], r["status"], r["information"], r["payload"]),
                             (0x3001, 0, len(block), b""))
            data[65536:65536 + len(block)] = block
            read(0x3002, 65536 - 10, len(block) + 20, data[65536 - 10:65536 + len(block) + 10])

        with self.subTest("write without a reply"):
            block = os.urandom(5000)
            drives.write(NO_REPLY_CONTEXT, "E", 3 << 20, block, reply=False)
            data[3 << 20:(3 << 20) + len(block)] = block
            # The next message is the read's reply: the write had none.
            read(0x3003, 3 << 20, len(block), block)

        with self.subTest("messages longer than a section"):
            big = os.urandom(2 * MAX_SECTION + 123456)
            sent_before = self.worker.link.tx_seq
            r = drives.write(0x4001, "E", 777, big)
            self.assertGreaterEqual(self.worker.link.tx_seq - sent_before, 3)
            self.assertEqual((r["status"], r["information"]), (0, len(big)))
            data[777:777 + len(big)] = big
            received_before = self.worker.link.transfers_received
            read(0x4002, 0, len(big) + 1000, data[:len(big) + 1000])
            self.assertGreaterEqual(self.worker.link.transfers_received - received_before, 3)

        with self.subTest("a write past the end"):
            tail = os.urandom(300)
            r = drives.write(0x4003, "E", size + 100, tail)
            self.assertEqual((r["status"], r["information"]), (0, len(tail)))
            data += bytes(100) + tail
            # Reads stop at the size the query recorded, until the next query.
            r = drives.read(0x4004, "E", size, 10)
            self.assertEqual(r["status"], STATUS_END_OF_FILE)
            r = drives.query(0x4005, "E", path)
            self.assertEqual(QUERY_INFO.unpack(r["payload"])[0], len(data))
            read(0x4006, size, 1000, data[size:])

        with self.subTest("release"):
            drives.release("E")
            # Again the next reply is the read's: a release is never answered.
            r = drives.read(0x5001, "E", 0, 16)
            self.assertEqual((r["context"], r["status"], r["information"], r["payload"]),
                             (0x5001, STATUS_INVALID_HANDLE, 0, b""))

        with open(path, "rb") as f:
            self.assertEqual(f.read(), bytes(data), "the file holds every write")
        self.close_and_expect_exit(drives.stream)

    def test_small_sections_with_requests_in_flight(self):
        size = 300000
        path, data = self.data_file(size)
        section = 5000
        stream = self.worker.connect(section=section)
        self.assertEqual(self.worker.link.rx.size, section)
        drives = DriveClient(stream)
        self.assertEqual(drives.query(1, "E", path)["status"], 0)
        reads = [(0x100 + i, i * 37000, 20000 + i) for i in range(8)]
        for context, offset, length in reads:
            drives.send(context, READ, "E", struct.pack("<IIQI", 0, 0, offset, length))
        for context, offset, length in reads:
            r = drives.reply()
            expected = data[offset:offset + length]
            self.assertEqual((r["context"], r["status"], r["information"]), (context, 0, len(expected)))
            self.assertEqual(r["payload"][4:], expected)
        self.assertGreater(self.worker.link.transfers_received, 8 * 20000 // section)
        self.close_and_expect_exit(stream)

    def test_failed_queries(self):
        drives = DriveClient(self.worker.connect())
        for context, path in ((1, os.path.join(self.worker.dir, "missing.img")),
                              (2, self.worker.dir),
                              (3, "relative.img")):
            with self.subTest(path=path):
                r = drives.query(context, "F", path)
                self.assertEqual((r["context"], r["status"], r["payload"]), (context, STATUS_UNSUCCESSFUL, b""))
        self.close_and_expect_exit(drives.stream)


class MalformedDriveRecordTest(WorkerTestCase):
    """The drive service's answers to records it cannot use; the link goes on."""

    def test_answers_to_malformed_records(self):
        path, _ = self.data_file(1 << 16)
        drives = DriveClient(self.worker.connect())
        self.assertEqual(drives.query(1, "E", path)["status"], 0)
        stream = drives.stream

        def answered(context, record):
            stream.send(record)
            r = drives.reply()
            self.assertEqual((r["context"], r["status"], r["information"], r["payload"]),
                             (context, STATUS_INVALID_PARAMETER, 0, b""))

        def unanswered(record, context):
            stream.send(record)
            # A query behind it gets the next reply.
            r = drives.query(context, "E", path)
            self.assertEqual((r["context"], r["status"]), (context, 0))

        with self.subTest("shorter than a header"):
            unanswered(REQUEST.pack(0x10, READ, ord("E"), 0)[:23], 0x11)
        with self.subTest("unknown code"):
            unanswered(REQUEST.pack(0x12, 0x99, ord("E"), 0) + bytes(32), 0x13)
        with self.subTest("read without its payload"):
            answered(0x20, REQUEST.pack(0x20, READ, ord("E"), 0) + bytes(19))
        with self.subTest("write shorter than its length"):
            answered(0x21, REQUEST.pack(0x21, WRITE, ord("E"), 0) + struct.pack("<IIQII", 0, 0, 0, 100, 0) + bytes(99))
        with self.subTest("query path without its zero"):
            answered(0x22, REQUEST.pack(0x22, QUERY, ord("E"), 0) + struct.pack("<I", 0) + path.encode("utf-16-le"))
        with self.subTest("short write tagged for no reply"):
            unanswered(REQUEST.pack(NO_REPLY_CONTEXT, WRITE, ord("E"), 0) + bytes(8), 0x23)
        with self.subTest("offset plus length past 2^63"):
            answered(0x24, REQUEST.pack(0x24, WRITE, ord("E"), 0) + struct.pack("<IIQII", 0, 0, (1 << 63) - 1, 2, 0) + b"xy")
        self.close_and_expect_exit(stream)


class MalformedTransferTest(WorkerTestCase):
    """A transfer or block the reader must refuse fails the link; each case a fresh worker."""

    def refuse(self, make):
        stream = self.worker.connect()
        link = self.worker.link
        # A read is always answered, so one that got through would show.
        record = REQUEST.pack(0x77, READ, ord("E"), 0) + struct.pack("<IIQI", 0, 0, 0, 4)
        bad = make(stream, record)
        if bad is not None:
            link.write_transfer(bad)
        self.expect_link_failed()

    def ok_message(self, stream, payload):
        return first_block(MSG, stream.id, stream.peer, payload)

    def test_bad_crc(self):
        self.refuse(lambda s, p: transfer_bytes([self.ok_message(s, p)], 1, crc_xor=0x1))

    def test_sequence_number_not_one_more(self):
        self.refuse(lambda s, p: transfer_bytes([self.ok_message(s, p)], 2))

    def test_no_blocks(self):
        self.refuse(lambda s, p: transfer_bytes([self.ok_message(s, p)], 1, count=0))

    def test_size_below_64(self):
        self.refuse(lambda s, p: transfer_bytes([self.ok_message(s, p)], 1, size=63))

    def test_size_past_the_section(self):
        self.refuse(lambda s, p: transfer_bytes([self.ok_message(s, p)], 1, size=MAX_SECTION + 1))

    def test_block_past_the_transfer(self):
        self.refuse(lambda s, p: transfer_bytes([self.ok_message(s, p)], 1, count=2))

    def test_unknown_type(self):
        self.refuse(lambda s, p: transfer_bytes([first_block(7, s.id, s.peer, p)], 1))

    def test_unknown_low_flag_bit(self):
        self.refuse(lambda s, p: transfer_bytes([first_block(MSG, s.id, s.peer, p, flags=0x7)], 1))

    def test_block_length_not_header_plus_payload(self):
        def make(s, p):
            b = bytearray(self.ok_message(s, p))
            struct.pack_into("<I", b, 28, len(b) + 1)
            return transfer_bytes([bytes(b)], 1)
        self.refuse(make)

    def test_total_size_differs_in_a_single_block(self):
        self.refuse(lambda s, p: transfer_bytes([first_block(MSG, s.id, s.peer, p, total=len(p) + 1)], 1))

    def test_control_message_with_payload(self):
        self.refuse(lambda s, p: transfer_bytes([first_block(CLOSE, s.id, s.peer, p)], 1))

    # The control stream cannot be closed, acknowledged, shut down or ended.
    def test_close_to_the_control_stream(self):
        self.refuse(lambda s, p: transfer_bytes([first_block(CLOSE, s.id, 0, b"")], 1))

    def test_shutdown_to_the_control_stream(self):
        self.refuse(lambda s, p: transfer_bytes([first_block(SHUTDOWN, s.id, 0, b"")], 1))

    def test_empty_message_to_the_control_stream(self):
        self.refuse(lambda s, p: transfer_bytes([first_block(MSG, s.id, 0, b"")], 1))

    def test_continuation_with_nothing_rebuilt(self):
        self.refuse(lambda s, p: transfer_bytes([next_block(s.id, s.peer, p, F_LAST)], 1))

    def test_last_block_before_the_total_size(self):
        def make(s, p):
            s.link.send_transfer([first_block(MSG, s.id, s.peer, p[:10], flags=F_FIRST, total=len(p) + 1)])
            s.link.tx_seq += 1
            return transfer_bytes([next_block(s.id, s.peer, p[10:], F_LAST)], s.link.tx_seq)
        self.refuse(make)

    def test_blocks_past_the_total_size(self):
        def make(s, p):
            s.link.send_transfer([first_block(MSG, s.id, s.peer, p[:10], flags=F_FIRST, total=len(p) - 1)])
            s.link.tx_seq += 1
            return transfer_bytes([next_block(s.id, s.peer, p[10:], F_LAST)], s.link.tx_seq)
        self.refuse(make)

    def test_data_ready_twice_for_one_transfer(self):
        def make(s, p):
            s.link.send_transfer([self.ok_message(s, p)])
            self.assertEqual(DriveClient(s).reply()["context"], 0x77)
            ev_signal(s.link.tx.ready)
            return None
        self.refuse(make)

    def test_first_block_while_a_message_is_rebuilt(self):
        def make(s, p):
            return transfer_bytes([first_block(MSG, s.id, s.peer, p, flags=F_FIRST, total=1000),
                                   first_block(MSG, s.id, s.peer, p)], 1)
        self.refuse(make)


class LifetimeTest(WorkerTestCase):

    def test_quits_when_nobody_connects(self):
        started = time.monotonic()
        self.assertEqual(self.worker.wait_exit(), 0, self.worker.text())
        self.assertGreaterEqual(time.monotonic() - started, 4.0)
        self.assertFalse(os.path.exists(self.worker.ready_path))


class StreamEndTest(WorkerTestCase):
    """Every way the documented peer ends its only stream makes the worker quit with 0."""

    def setUp(self):
        super().setUp()
        path, _ = self.data_file(4096)
        self.stream = self.worker.connect()
        self.assertEqual(DriveClient(self.stream).query(1, "E", path)["status"], 0)

    def test_stop_event(self):
        ev_signal(self.worker.link.rx.stop)
        self.expect_quit(closed_link=False)
        self.assertTrue(self.worker.link.nothing_pending())

    def test_error_event(self):
        ev_signal(self.worker.link.rx.error)
        self.expect_quit(closed_link=False)
        self.assertTrue(self.worker.link.nothing_pending())

    def test_shutdown(self):
        s = self.stream
        s.link.send_transfer([first_block(SHUTDOWN, s.id, s.peer, b"", total=0)])
        self.expect_quit(closed_link=True)
        self.assertTrue(s.link.nothing_pending(), "a Shutdown is not answered")

    def test_empty_message(self):
        s = self.stream
        s.link.send_transfer([first_block(MSG, s.id, s.peer, b"")])
        self.assertEqual(s.recv(), (CLOSE, b""))
        self.expect_quit(closed_link=True)


class StreamOpenTest(WorkerTestCase):

    def open_block(self, own_id, name, flags=0):
        units = name.encode("utf-16-le")
        return first_block(OPEN, own_id, 0, struct.pack("<I", len(units)) + units, flags=F_FIRST | F_LAST | flags)

    def open_ack(self, own_id):
        b = self.worker.link.next_block()
        self.assertEqual((b["kind"], b["dst"], b["payload"]), (OPEN_ACK, own_id, b""))
        return b

    def test_a_second_command_stream_replaces_the_first_ones_drives(self):
        path, data = self.data_file(8192)
        first = DriveClient(self.worker.connect())
        link = self.worker.link
        self.assertEqual(first.query(1, "E", path)["status"], 0)

        with self.subTest("bytes to the control stream, then an open of another name in the same transfer"):
            # The bytes are refused on their own; the Open behind them is still answered.
            link.send_transfer([first_block(MSG, CLIENT_STREAM_ID, 0, b"hello"), self.open_block(0x77, "tolvOther")])
            ack = self.open_ack(0x77)
            self.assertEqual((ack["status"], ack["flags"]), (ST_ACCESS_DENIED, F_FIRST | F_LAST))

        with self.subTest("open of a command stream"):
            link.send_transfer([self.open_block(0x78, "tolvCommands", flags=0x00330000)])
            ack = self.open_ack(0x78)
            self.assertEqual((ack["status"], ack["flags"]), (ST_OK, 0x00330000 | F_FIRST | F_LAST))
            self.assertNotIn(ack["src"], (0, first.stream.peer))
            second = DriveClient(Stream(link, 0x78, ack["src"]))

        with self.subTest("the first stream's drives are gone"):
            r = first.read(2, "E", 0, 16)
            self.assertEqual((r["context"], r["status"]), (2, STATUS_INVALID_HANDLE))

        with self.subTest("the second stream serves"):
            self.assertEqual(second.query(3, "E", path)["status"], 0)
            r = second.read(4, "E", 100, 50)
            self.assertEqual((r["status"], r["payload"][4:]), (0, data[100:150]))

        with self.subTest("the worker quits with its last stream"):
            first.stream.close()
            self.assertEqual(first.stream.recv(), (CLOSE_ACK, b""))
            r = second.read(5, "E", 0, 10)
            self.assertEqual((r["status"], r["payload"][4:]), (0, data[:10]))
            self.close_and_expect_exit(second.stream)


def die_with_parent():
    # A test runner that kills this script on its time-out takes the staged run along;
    # its workers then see their peer gone and exit.
    PR_SET_PDEATHSIG = 1
    ctypes.CDLL(None).prctl(PR_SET_PDEATHSIG, 9)


def stage(worker):
    """A private folder with the worker and the interpreter as its admitted peer."""
    folder = tempfile.mkdtemp(prefix="tolv-wire-")
    python = os.path.realpath(sys.executable)
    for source, name in ((worker, "tolvClientWorker"), (python, PEER_NAME)):
        target = os.path.join(folder, name)
        try:
            os.link(source, target)
        except OSError:
            shutil.copy2(source, target)
    return folder


def main():
    if len(sys.argv) < 2:
        sys.exit(__doc__)
    if STAGED_ENV not in os.environ:
        worker = os.path.realpath(sys.argv[1])
        folder = stage(worker)
        try:
            env = dict(os.environ, **{STAGED_ENV: folder, "TOLV_WIRE_PYTHON": os.path.realpath(sys.executable)})
            peer = os.path.join(folder, PEER_NAME)
            rc = subprocess.call([peer, os.path.abspath(__file__), *sys.argv[1:]], env=env,
                                 preexec_fn=die_with_parent)
        finally:
            shutil.rmtree(folder, ignore_errors=True)
        sys.exit(rc)
    folder = os.environ[STAGED_ENV]
    if os.path.realpath("/proc/self/exe") != os.path.realpath(os.path.join(folder, PEER_NAME)):
        sys.exit("not running as the staged " + PEER_NAME)
    WorkerTestCase.worker_path = os.path.join(folder, "tolvClientWorker")
    WorkerTestCase.root = folder
    unittest.main(argv=[sys.argv[0]] + sys.argv[2:], verbosity=2)


if __name__ == "__main__":
    main()
