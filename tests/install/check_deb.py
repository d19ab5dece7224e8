#!/usr/bin/env python3
"""install.deb: the Debian package that cpack makes.

Runs "cpack -G DEB --config BUILD/CPackConfig.cmake -B <new directory>" and checks:
- exactly one package is made, ruvo_1.0.0_ARCH.deb;
- its control fields (dpkg-deb -f): Package ruvo, Version 1.0.0, Architecture ARCH, Section
  net, Priority optional, a Maintainer with an e-mail address, the Depends line, and a
  description whose synopsis is not repeated as the first line of the extended one.
  ARCH is "dpkg --print-architecture" for a native build; for a cross build it is the Debian
  architecture of the built daemon's ELF header;
- its files (dpkg-deb -c), with their modes, are exactly the files that
  "DESTDIR=<new directory> cmake --install BUILD --prefix /usr" installs, all owned by
  root/root, and it holds nothing but those files and their directories;
- its conffiles list is /etc/init.d/ruvo alone;
- the packaged unit and init script start /usr/sbin/ruvo, whatever prefix the build was
  configured with.
"""

import glob
import os
import shutil
import stat
import struct
import sys
import tempfile

from install_tree import SKIPPED, Checks, describe, install, list_tree, parse_arguments, run

VERSION = "1.0.0"
DEPENDS = "libc6 (>= 2.34), libgcc-s1 (>= 3.0), libstdc++6 (>= 11)"
SYNOPSIS = "Usage Monitor for multi-WAN routers"


def elf_architecture(path):
    """The Debian architecture of an ELF program, or None when it is not one of the known."""
    with open(path, "rb") as f:
        header = f.read(64)
    if len(header) < 52 or header[:4] != b"\x7fELF":
        return None
    is_64 = header[4] == 2
    order = "<" if header[5] == 1 else ">"
    machine = struct.unpack_from(order + "H", header, 18)[0]
    flags = struct.unpack_from(order + "I", header, 48 if is_64 else 36)[0]
    if machine == 62 and is_64:
        return "amd64"
    if machine == 3 and not is_64:
        return "i386"
    if machine == 183 and is_64:
        return "arm64"
    if machine == 40 and not is_64:
        return "armhf" if flags & 0x400 else "armel"  # EF_ARM_ABI_FLOAT_HARD
    if machine == 8 and not is_64:
        return "mips" if order == ">" else "mipsel"
    return None


def mode_of(permissions):
    """The mode bits of an "ls -l" permission text such as -rwxr-xr-x."""
    mode = 0
    bits = [(stat.S_IRUSR, stat.S_IWUSR, stat.S_IXUSR, stat.S_ISUID),
            (stat.S_IRGRP, stat.S_IWGRP, stat.S_IXGRP, stat.S_ISGID),
            (stat.S_IROTH, stat.S_IWOTH, stat.S_IXOTH, stat.S_ISVTX)]
    for (read, write, execute, special), triple in zip(bits, [permissions[1:4], permissions[4:7],
                                                             permissions[7:10]]):
        mode |= read if triple[0] == "r" else 0
        mode |= write if triple[1] == "w" else 0
        if triple[2] in "xst":
            mode |= execute
        if triple[2] in "sStT":
            mode |= special
    return mode


def package_entries(deb):
    """(files, others, owners) of "dpkg-deb -c": files as (path, mode) of the regular files,
    others as (path, type) of what is neither a file nor a directory."""
    result = run(["dpkg-deb", "-c", deb])
    if result.returncode != 0:
        raise RuntimeError(describe(result))
    files, others, owners = [], [], set()
    for line in result.stdout.splitlines():
        fields = line.split(None, 5)
        permissions, owner, path = fields[0], fields[1], fields[5]
        path = path.split(" -> ")[0]
        path = path[2:] if path.startswith("./") else path
        owners.add(owner)
        if permissions[0] == "-":
            files.append((path, mode_of(permissions)))
        elif permissions[0] != "d":
            others.append((path, permissions[0]))
    return sorted(files), others, owners


def field(deb, name):
    result = run(["dpkg-deb", "-f", deb, name])
    return result.stdout.rstrip("\n") if result.returncode == 0 else None


def lines_starting(path, start):
    with open(path, encoding="utf-8") as f:
        return [line.rstrip("\n") for line in f if line.startswith(start)]


def main():
    args = parse_arguments(__doc__)
    for tool in ("dpkg-deb", "dpkg"):
        if not shutil.which(tool):
            print(f"SKIPPED: {tool} is not installed (Debian package dpkg)")
            return SKIPPED
    checks = Checks()
    if args.cross:
        expected_architecture = elf_architecture(args.ruvo)
        checks.true(f"{args.ruvo} is a program of a known Debian architecture",
                    expected_architecture is not None)
    else:
        expected_architecture = run(["dpkg", "--print-architecture"]).stdout.strip()

    with tempfile.TemporaryDirectory(prefix="ruvo-deb-") as work:
        packages = os.path.join(work, "packages")
        result = run([args.cpack, "-G", "DEB", "--config",
                      os.path.join(args.build_dir, "CPackConfig.cmake"), "-B", packages])
        if result.returncode != 0:
            print(f"FAIL cpack failed:\n{describe(result)}")
            return 1
        debs = sorted(glob.glob(os.path.join(packages, "*.deb")))
        checks.equal("packages made by cpack", [os.path.basename(d) for d in debs],
                     [f"ruvo_{VERSION}_{expected_architecture}.deb"])
        if len(debs) != 1:
            return checks.finish("install.deb")
        deb = debs[0]

        for name, value in [("Package", "ruvo"), ("Version", VERSION),
                            ("Architecture", expected_architecture), ("Section", "net"),
                            ("Priority", "optional"), ("Depends", DEPENDS)]:
            checks.equal(f"control field {name}", field(deb, name), value)
        maintainer = field(deb, "Maintainer") or ""
        checks.true("the Maintainer field names an e-mail address",
                    "<" in maintainer and "@" in maintainer and maintainer.endswith(">"), maintainer)
        description = (field(deb, "Description") or "").splitlines()
        checks.equal("synopsis of the Description", description[:1], [SYNOPSIS])
        checks.true("the extended description follows and does not repeat the synopsis",
                    len(description) > 2 and description[1].strip() != SYNOPSIS, repr(description[:3]))

        files, others, owners = package_entries(deb)
        destdir = os.path.join(work, "destdir")
        install(args, destdir)
        checks.same_entries("files of the package (dpkg-deb -c) against the files of "
                            "cmake --install --prefix /usr", files, list_tree(destdir))
        checks.equal("entries of the package that are neither files nor directories", others, [])
        checks.equal("owners of the package's entries", owners, {"root/root"})

        result = run(["dpkg-deb", "-I", deb, "conffiles"])
        checks.equal("conffiles of the package", result.stdout.split(), ["/etc/init.d/ruvo"])

        unpacked = os.path.join(work, "unpacked")
        result = run(["dpkg-deb", "-x", deb, unpacked])
        checks.equal("dpkg-deb -x exit status", result.returncode, 0)
        unit = os.path.join(unpacked, "usr/lib/systemd/system/ruvo.service")
        init = os.path.join(unpacked, "etc/init.d/ruvo")
        if os.path.isfile(unit) and os.path.isfile(init):
            checks.equal("ExecStart of the packaged unit", lines_starting(unit, "ExecStart="),
                         ["ExecStart=/usr/sbin/ruvo"])
            checks.equal("DAEMON line of the packaged init script", lines_starting(init, "DAEMON="),
                         ["DAEMON=/usr/sbin/ruvo"])
    return checks.finish("install.deb")


if __name__ == "__main__":
    sys.exit(main())
