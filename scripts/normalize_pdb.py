#!/usr/bin/env python3
"""Takes the time and the builder's folders out of a PDB that the linker wrote, so that the same commit gives the
same bytes: the signature (a time; debuggers match by GUID and age) becomes 0, the paths of the linked objects
become relative to the build folder, and the record of the linker's environment goes. usage: normalize_pdb.py IN OUT BUILD_FOLDER

A PDB is a container of streams in blocks (MSF): a superblock, two free-block maps at the head of every interval of
blocks, the streams' blocks, and a directory that names them."""

import os
import pathlib
import struct
import sys

MAGIC = b"Microsoft C/C++ MSF 7.00\r\n\x1aDS\0\0\0"
INFO, DEBUG_INFORMATION = 1, 3  # fixed stream numbers
NO_STREAM = 0xFFFFFFFF
ENVIRONMENT_RECORD = 0x113D


def blocks_for(size, block_size):
    return (size + block_size - 1) // block_size


def read_streams(data):
    if data[:len(MAGIC)] != MAGIC:
        raise ValueError("not a PDB")
    block_size, _, _, directory_size, _, map_block = struct.unpack_from("<6I", data, len(MAGIC))

    def gather(numbers, size):
        return b"".join(data[n * block_size:(n + 1) * block_size] for n in numbers)[:size]

    count = blocks_for(directory_size, block_size)
    directory = gather(struct.unpack_from(f"<{count}I", data, map_block * block_size), directory_size)
    streams, sizes = [], struct.unpack_from(f"<{struct.unpack_from('<I', directory)[0]}I", directory, 4)
    position = 4 + 4 * len(sizes)
    for size in sizes:
        count = 0 if size == NO_STREAM else blocks_for(size, block_size)
        numbers = struct.unpack_from(f"<{count}I", directory, position)
        position += 4 * count
        streams.append(None if size == NO_STREAM else gather(numbers, size))
    return block_size, streams


def write_streams(block_size, streams):
    blocks = {}
    state = {"next": 3}

    def allocate(content):
        numbers = []
        for start in range(0, len(content), block_size):
            while state["next"] % block_size in (1, 2):  # the maps of the next interval
                state["next"] += 1
            blocks[state["next"]] = content[start:start + block_size]
            numbers.append(state["next"])
            state["next"] += 1
        return numbers

    numbers = [allocate(stream or b"") for stream in streams]
    directory = struct.pack("<I", len(streams)) + b"".join(
        struct.pack("<I", NO_STREAM if stream is None else len(stream)) for stream in streams)
    directory += b"".join(struct.pack(f"<{len(listed)}I", *listed) for listed in numbers)
    directory_blocks = allocate(directory)
    map_block, = allocate(struct.pack(f"<{len(directory_blocks)}I", *directory_blocks))
    total = state["next"]

    superblock = MAGIC + struct.pack("<6I", block_size, 1, total, len(directory), 0, map_block)
    file = bytearray(block_size * total)
    file[:len(superblock)] = superblock
    for number, content in blocks.items():
        file[number * block_size:number * block_size + len(content)] = content
    free = bytearray(b"\xff" * (block_size * blocks_for(total, 8 * block_size)))
    for number in range(total):
        free[number // 8] &= ~(1 << number % 8)
    for interval in range(blocks_for(total, block_size)):
        first = interval * block_size + 1
        part = free[interval * block_size:(interval + 1) * block_size].ljust(block_size, b"\xff")
        for copy in (first, first + 1):
            if copy < total:
                file[copy * block_size:(copy + 1) * block_size] = part
    return bytes(file)


def relative(name, folder):
    text = os.fsdecode(name)
    return os.fsencode(os.path.relpath(text, folder)) if text.startswith(folder + "/") else name


def without_environment(symbols):
    """A module's symbol records, each with its length in front, without the one that names folders."""
    kept, position = b"", 0
    while position + 4 <= len(symbols):
        length, kind = struct.unpack_from("<HH", symbols, position)
        if kind != ENVIRONMENT_RECORD:
            kept += symbols[position:position + 2 + length]
        position += 2 + length
    return kept


def relative_modules(streams, folder):
    """The debug-information stream with the modules' paths made relative; its first substream lists them. The
    modules' own streams lose the record of the environment."""
    stream = streams[DEBUG_INFORMATION]
    header, size = bytearray(stream[:64]), struct.unpack_from("<i", stream, 24)[0]
    modules, position, end = b"", 64, 64 + size
    while position < end:
        fixed = bytearray(stream[position:position + 64])
        number, symbols_size = struct.unpack_from("<HI", fixed, 34)
        if number < len(streams) and symbols_size > 4:
            module = streams[number]
            symbols = without_environment(module[4:symbols_size])
            streams[number] = module[:4] + symbols + module[symbols_size:]
            struct.pack_into("<I", fixed, 36, 4 + len(symbols))
        name_end = stream.index(b"\0", position + 64)
        object_end = stream.index(b"\0", name_end + 1)
        names = [relative(stream[position + 64:name_end], folder),
                 relative(stream[name_end + 1:object_end], folder)]
        record = bytes(fixed) + b"".join(name + b"\0" for name in names)
        modules += record + b"\0" * (-len(record) % 4)
        position = (object_end + 1 + 3) // 4 * 4
    struct.pack_into("<i", header, 24, len(modules))
    return bytes(header) + modules + stream[end:]


def main(source, target, folder):
    block_size, streams = read_streams(pathlib.Path(source).read_bytes())
    streams[INFO] = streams[INFO][:4] + struct.pack("<I", 0) + streams[INFO][8:]
    streams[DEBUG_INFORMATION] = relative_modules(streams, os.path.abspath(folder))
    streams[0] = b""  # the directory of an earlier state of the file
    pathlib.Path(target).write_bytes(write_streams(block_size, streams))


if __name__ == "__main__":
    main(*sys.argv[1:])
