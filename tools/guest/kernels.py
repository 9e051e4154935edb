"""Starts the kernels of with-can: User Mode Linux, and Debian's kernel under QEMU."""
import os
import socket
import subprocess

# Each is a pair of connected sockets; the guest's end is a serial line or a virtio port there.
CHANNELS = ('main', 'output', 'error', 'control')

KVM_BOOT_S = 20  # /dev/kvm may exist and yet be too slow for an ordinary kernel
# Of the first try and, where there is one, of the second. A boot takes 1 s (uml), 6 to 15 s (smp,
# icount), 10 s of a CPU (arm64); the rest is room for a busy machine. About one emulated boot of
# smp in a hundred hangs early, with both processors busy.
BOOT_S = {'uml': (60,), 'smp': (45, 240), 'icount': (120, 240), 'arm64': (120, 240)}

# Program, console, options. A clock that counts instructions, a nanosecond each, makes nothing late
# on a host that is busy or slow at emulating; with "sleep=off" it does not wait for idle time.
SERIAL_LINES = ('-device', 'isa-serial,chardev=log', '-device', 'isa-serial,chardev=main')
MACHINES = {
    'smp': ('qemu-system-x86_64', 'ttyS0', '-smp', '2', *SERIAL_LINES),
    'icount': ('qemu-system-x86_64', 'ttyS0', '-smp', '1', *SERIAL_LINES,
               '-accel', 'tcg', '-cpu', 'max', '-icount', 'shift=0,sleep=off'),
    'arm64': ('qemu-system-aarch64', 'ttyAMA0', '-smp', '2', '-machine', 'virt',
              '-cpu', 'cortex-a72', '-icount', 'shift=0',
              '-serial', 'chardev:log', '-device', 'pci-serial,chardev=main'),
}
KVM = ('-accel', 'kvm', '-cpu', 'max')
EMULATION = ('-accel', 'tcg', '-cpu', 'Haswell-noTSX')  # "max" makes the emulation slower


def start(kernel, image, directory, with_kvm):
    """Returns the process, which leads a process group, and our ends of the channels by name."""
    pairs = {name: socket.socketpair() for name in CHANNELS}
    descriptors = {name: pair[1].fileno() for name, pair in pairs.items()}
    memory = directory
    if kernel == 'uml':
        command = uml_command(directory, descriptors)
        os.mkdir(f'{directory}/lib')
        os.symlink('/usr/lib/uml/modules', f'{directory}/lib/modules')  # as modprobe wants it
        if has_room_in_shm():
            memory = '/dev/shm'
    else:
        command = qemu_command(kernel, image, directory, descriptors, with_kvm)
    with open(f'{directory}/start.log', 'wb') as log:
        process = subprocess.Popen(
            command, stdin=subprocess.DEVNULL, stdout=log, stderr=log, start_new_session=True,
            pass_fds=tuple(descriptors.values()),
            env={'HOME': directory, 'PATH': os.environ['PATH'], 'TMPDIR': memory})
    for pair in pairs.values():
        pair[1].close()
    return process, {name: pair[0] for name, pair in pairs.items()}


def has_room_in_shm():
    """For the memory of User Mode Linux: a container may have a small or noexec /dev/shm."""
    shm = os.statvfs('/dev/shm')
    return shm.f_bavail * shm.f_frsize > 1 << 30 and not shm.f_flag & os.ST_NOEXEC


def uml_command(directory, descriptors):
    # The blacklisted benchmarks and self-tests would take half of the boot.
    return ['linux.uml', 'mem=1G', f'uml_dir={directory}/uml/', 'rootfstype=hostfs',
            'root=/dev/root', 'rootflags=/', 'rw', 'con=null', 'con0=null,fd:2',
            *(f'ssl{line}=fd:{descriptors[name]}' for line, name in enumerate(CHANNELS)),
            'quiet', 'zswap.enabled=0', 'cryptomgr.notests',
            'initcall_blacklist=calibrate_xor_blocks,init_btrfs_fs,raid6_select_algo',
            f'init={directory}/init']


def qemu_command(kernel, image, directory, descriptors, with_kvm):
    program, console, *options = MACHINES[kernel]
    if kernel == 'smp':
        options += KVM if with_kvm else EMULATION
    for name in CHANNELS:
        options += '-chardev', f'socket,id={name},fd={descriptors[name]}'
    for number, name in enumerate(CHANNELS[1:], start=1):
        options += '-device', f'virtserialport,nr={number},chardev={name}'
    return [program, '-m', '2G', '-nodefaults', '-no-user-config', '-display', 'none', '-no-reboot',
            '-kernel', f'{image}/vmlinux', '-initrd', f'{image}/initramfs', '-append',
            f'console={console} quiet panic=-1 mitigations=off WITH_CAN_DIR={directory}',
            '-virtfs', 'local,path=/,security_model=none,mount_tag=host,multidevs=remap',
            '-chardev', f'file,id=log,path={directory}/log', '-device', 'virtio-serial-pci',
            *options]


class KvmVerdict:
    """That no kernel starts under /dev/kvm here; holds until the next boot of this machine."""

    def __init__(self, image):
        self.path = f'{image}/useless-kvm'
        with open('/proc/sys/kernel/random/boot_id', encoding='ascii') as file:
            self.boot_id = file.read()

    def allows(self):
        if not os.access('/dev/kvm', os.R_OK | os.W_OK):
            return False
        try:
            with open(self.path, encoding='ascii') as file:
                return file.read() != self.boot_id
        except FileNotFoundError:
            return True

    def note(self):
        unfinished = f'{self.path}.{os.getpid()}'
        try:
            with open(unfinished, 'w', encoding='ascii') as file:
                file.write(self.boot_id)
            os.replace(unfinished, self.path)
        except OSError:
            pass  # the next launcher will find out again
