#!/usr/bin/env python3
"""Writes a classic-BPF seccomp program (for bwrap --seccomp) that does what
the service unit's settings do with system calls (scripts/service-sandbox.sh
runs the miner under it):

  SystemCallArchitectures=native     other architectures and x32: killed
  SystemCallFilter=@system-service   allowed ...
  SystemCallFilter=~@privileged @resources   ... minus these
  SystemCallErrorNumber=EPERM        the rest: EPERM (or --kill: kill)
  RestrictAddressFamilies=AF_INET AF_UNIX   socket() of others: EAFNOSUPPORT
  RestrictNamespaces=yes             unshare/setns: EPERM, clone with CLONE_NEW*: EPERM, clone3: ENOSYS
  MemoryDenyWriteExecute=yes         mmap W+X, mprotect/pkey_mprotect +X: EPERM

usage: service_seccomp.py OUTPUT [--kill]

--kill kills the process at a call outside the list instead of failing the
call, so a run that goes through shows that the miner made none.
"""
import re
import struct
import subprocess
import sys

AUDIT_ARCH_X86_64 = 0xC000003E
RET_KILL_PROCESS = 0x80000000
RET_ALLOW = 0x7FFF0000
RET_ERRNO = 0x00050000
EPERM, ENOSYS, EAFNOSUPPORT = 1, 38, 97
LD_W_ABS, JEQ_K, JGE_K, JSET_K, AND_K, RET_K = 0x20, 0x15, 0x35, 0x45, 0x54, 0x06
CLONE_NEW = 0x7E020000  # NEWNS|NEWCGROUP|NEWUTS|NEWIPC|NEWUSER|NEWPID|NEWNET
PROT_WRITE, PROT_EXEC = 2, 4


def syscall_group(name):
    out = subprocess.run(["systemd-analyze", "syscall-filter", name], check=True, capture_output=True, text=True)
    names = set()
    for line in out.stdout.splitlines()[1:]:
        word = line.strip()
        if not word or word.startswith("#"):
            continue
        names |= syscall_group(word) if word.startswith("@") else {word}
    return names


def numbers():
    table = {}
    with open("/usr/include/x86_64-linux-gnu/asm/unistd_64.h") as header:
        for name, number in re.findall(r"#define __NR_(\w+) (\d+)", header.read()):
            table[name] = int(number)
    return table


def insn(code, k=0, jt=0, jf=0):
    return struct.pack("<HBBI", code, jt, jf, k)


def main():
    output, kill = sys.argv[1], "--kill" in sys.argv[2:]
    table = numbers()
    allowed = syscall_group("@system-service") - syscall_group("@privileged") - syscall_group("@resources")
    allowed = sorted(table[name] for name in allowed if name in table)
    nr = table
    # The architecture must be x86-64 and the call no x32 one.
    program = [insn(LD_W_ABS, 4), insn(JEQ_K, AUDIT_ARCH_X86_64, 1, 0), insn(RET_K, RET_KILL_PROCESS),
               insn(LD_W_ABS, 0), insn(JGE_K, 0x40000000, 0, 1), insn(RET_K, RET_KILL_PROCESS)]

    def special(number, block):
        program.append(insn(JEQ_K, number, 0, len(block)))
        program.extend(block)

    arg0, arg2 = 16, 32
    socket_ok = [insn(LD_W_ABS, arg0), insn(JEQ_K, 1, 2, 0), insn(JEQ_K, 2, 1, 0),
                 insn(RET_K, RET_ERRNO | EAFNOSUPPORT), insn(RET_K, RET_ALLOW)]
    special(nr["socket"], socket_ok)
    special(nr["clone"], [insn(LD_W_ABS, arg0), insn(JSET_K, CLONE_NEW, 0, 1), insn(RET_K, RET_ERRNO | EPERM),
                          insn(RET_K, RET_ALLOW)])
    special(nr["clone3"], [insn(RET_K, RET_ERRNO | ENOSYS)])
    special(nr["unshare"], [insn(RET_K, RET_ERRNO | EPERM)])
    special(nr["setns"], [insn(RET_K, RET_ERRNO | EPERM)])
    special(nr["mmap"], [insn(LD_W_ABS, arg2), insn(AND_K, PROT_WRITE | PROT_EXEC),
                         insn(JEQ_K, PROT_WRITE | PROT_EXEC, 0, 1), insn(RET_K, RET_ERRNO | EPERM),
                         insn(RET_K, RET_ALLOW)])
    for name in ("mprotect", "pkey_mprotect"):
        special(nr[name], [insn(LD_W_ABS, arg2), insn(JSET_K, PROT_EXEC, 0, 1), insn(RET_K, RET_ERRNO | EPERM),
                           insn(RET_K, RET_ALLOW)])
    for number in allowed:
        program += [insn(JEQ_K, number, 0, 1), insn(RET_K, RET_ALLOW)]
    # No block falls through: each ends in a return, so the accumulator holds
    # the call's number again at every check of the list.
    program.append(insn(RET_K, RET_KILL_PROCESS if kill else RET_ERRNO | EPERM))
    with open(output, "wb") as out:
        out.write(b"".join(program))
    print(f"{len(allowed)} system calls allowed, {len(program)} instructions, default "
          f"{'kill' if kill else 'EPERM'}", file=sys.stderr)


main()
