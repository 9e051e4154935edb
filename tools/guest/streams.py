"""The streams of a command between with-can and a guest, each moved by a thread that may block."""
import os
import select
import threading

CHANNEL_BYTES = 1 << 16
BLOCK_BYTES = 1 << 20  # of standard input


class Relay(threading.Thread):
    """Passes on what comes out of a channel, and counts it."""

    def __init__(self, channel, descriptor, on_failure):
        super().__init__(daemon=True)
        self.channel, self.descriptor, self.on_failure = channel, descriptor, on_failure
        self.passed, self.ended, self.changed = 0, False, threading.Condition()
        self.start()

    def run(self):
        try:
            while data := receive(self.channel):
                left = data
                while left:
                    left = left[os.write(self.descriptor, left):]
                self.note(len(data))
        except OSError as error:
            self.on_failure(error)
        self.note(0, ended=True)

    def note(self, passed, ended=False):
        with self.changed:
            self.passed += passed
            self.ended = ended
            self.changed.notify()

    def wait_for(self, count):
        with self.changed:
            self.changed.wait_for(lambda: self.ended or self.passed >= count)


def receive(channel):
    """Nothing where the kernel has ended."""
    try:
        return channel.recv(CHANNEL_BYTES)
    except ConnectionResetError:
        return b''


def feed(channel, directory):
    """Starts to pass on standard input: as it is or, where DIRECTORY is given, in files there."""
    def run():
        try:
            if directory:
                feed_blocks(channel, directory)
            else:
                while data := os.read(0, CHANNEL_BYTES):
                    channel.sendall(data)
        except OSError:
            pass  # the kernel has ended
    threading.Thread(target=run, daemon=True).start()


def feed_blocks(channel, directory):
    number = 0
    while data := read_block():
        path = f'{directory}/input.{number}'
        with open(path, 'wb') as file:
            file.write(data)
        channel.sendall(b'%d ' % number)
        if not channel.recv(1):
            return
        os.unlink(path)
        number += 1
    channel.sendall(b'end ')


def read_block():
    """All that is there without waiting for more."""
    data = part = os.read(0, BLOCK_BYTES)
    while part and len(data) < BLOCK_BYTES and select.select([0], [], [], 0)[0]:
        part = os.read(0, BLOCK_BYTES - len(data))
        data += part
    return data
