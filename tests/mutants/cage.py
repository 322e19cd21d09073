"""The bubblewrap sandbox for broken code, which runs as root and can write to one directory and scratch directories."""

import subprocess

# Makes the scratch directories like those of the machine, and the machine's devices, which bubblewrap shows, read-only.
SET_UP = """
for directory in /tmp /var/tmp; do mount -o remount,dev,suid,mode=1777,size=4g tmpfs "$directory" || exit; done
for device in null zero full random urandom tty; do mount -o remount,bind,ro "/dev/$device" || exit; done
ulimit -v 16777216
ulimit -c 0
exec env --default-signal=HUP,INT,QUIT,TERM "$@"
"""

# Changes nothing where it succeeds.
BREAK_OUT = """
for path in / /etc /home /usr /var /var/lib $(cut -d ' ' -f 2 /proc/self/mounts); do
    case $path in "$PWD" | /tmp | /var/tmp | /run | /dev | /dev/shm | /dev/pts | /proc) continue ;; esac
    ! chmod --reference="$path" "$path" || exit 1
    ! file=$(mktemp "$path/arsp-XXXXXX") || { rm "$file"; exit 1; }
done
touch trial && rm trial
"""


def caged(directory, words):
    """The command that runs `words` in the directory, the only part of the machine that can be written."""
    return ["bwrap", "--ro-bind", "/", "/", "--tmpfs", "/tmp", "--tmpfs", "/var/tmp", "--tmpfs", "/run",
            "--dev", "/dev", "--proc", "/proc", "--bind", directory, directory, "--chdir", directory,
            "--unshare-pid", "--unshare-ipc", "--unshare-net", "--die-with-parent", "--cap-add", "ALL",
            "/bin/sh", "-c", SET_UP, "sh", *words]


def escape(directory):
    """Tries to write outside the directory; returns the output of a success, or None when all attempts failed."""
    result = subprocess.run(caged(directory, ["/bin/sh", "-xc", BREAK_OUT]), cwd=directory, text=True, check=False,
                            stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
    return result.stdout if result.returncode != 0 else None
