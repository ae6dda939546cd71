#!/usr/bin/env python3
"""Writes the seed corpora of the fuzz targets into fuzz/corpus/<target>/.

Each seed is a small input in the byte layout its target reads (see the
header comment of fuzz/fuzz_<target>.cpp): typical requests and the odd
ones the targets exist for. The seeds are kept in the repository; run this
again only after changing a target's input layout.
"""
import json
import os
import shutil
import struct
import uuid

HERE = os.path.dirname(os.path.abspath(__file__))
CORPUS = os.path.join(HERE, "corpus")


def guid(text):
    return uuid.UUID(text).bytes_le


AUDIO = guid("73647561-0000-0010-8000-00AA00389B71")
PCM = guid("00000001-0000-0010-8000-00AA00389B71")
ANALOG = guid("6DBA3190-67BD-11CF-A0F7-0020AFD156E4")
WFX = guid("05589F81-C356-11CE-BF01-00AA0055595A")
NONE = guid("0F6417D6-C318-11D0-A43F-00A0C9223196")


def write(target, name, data):
    folder = os.path.join(CORPUS, target)
    os.makedirs(folder, exist_ok=True)
    with open(os.path.join(folder, name), "wb") as f:
        f.write(data)


def u8(*v):
    return bytes(v)


def u16(*v):
    return struct.pack("<%dH" % len(v), *v)


def u32(*v):
    return struct.pack("<%dI" % len(v), *v)


# ---- device_format ----

def alt(bits, channels, rates=(), rng=None, endpoints=((512, 0x01),), flag=1,
        num_rates=None, num_endpoints=None):
    rates = list(rates)
    data = u8(flag, 0,
              len(endpoints) if num_endpoints is None else num_endpoints, 0,
              bits, channels, 0 if rng is None else 1,
              len(rates) if num_rates is None else num_rates)
    low, high = rng if rng else (0, 0)
    data += u32(low, high)
    data += u32(*(rates + [0] * (16 - len(rates))))
    for packet, address in list(endpoints) + [(0, 0)] * (4 - len(endpoints)):
        data += u16(packet) + u8(address, 0)
    assert len(data) == 96
    return data


def interface(direction, alts, num_alts=None):
    return u8(direction, len(alts) if num_alts is None else num_alts, len(alts)) + b"".join(alts)


def record(who, interfaces, num_configs=1, num_interfaces=None, vendor=0x1209, product=0x0001):
    data = u8(who)
    if not 1 <= who <= 4:
        data += u16(vendor, product)
    data += u16(0) + u8(num_configs)
    data += u8(len(interfaces) if num_interfaces is None else num_interfaces, len(interfaces))
    data += b"".join(interfaces)
    data += u8(0, 0)  # configuration 1: no interfaces
    data += u8(0)  # no patches
    return data


def device_format():
    query = u8(0, 1, 24, 2, 0)  # configuration 0, 48000 Hz, 24 bits, 2 channels
    common = (44100, 48000, 96000)
    write("device_format", "stereo_and_eight_channels", query + record(0, [
        interface(0, [alt(24, 2, common), alt(24, 8, common)]),
        interface(1, [alt(24, 2, common, endpoints=((512, 0x81),)),
                      alt(24, 8, common, endpoints=((512, 0x81),))]),
    ]))
    write("device_format", "continuous_range_by_interface", u8(0, 2, 24, 2, 2) + record(1, [
        interface(0, [alt(24, 2, rng=(44100, 96000))]),
        interface(1, [alt(24, 2, rng=(44100, 96000), endpoints=((3, 0x81),))]),
    ]))
    write("device_format", "counts_beyond_capacities", u8(3, 7, 24, 2, 1) + record(2, [
        interface(1, [alt(24, 2, common, num_rates=255, num_endpoints=255,
                          endpoints=((512, 0x81),))], num_alts=255),
        interface(0, [alt(24, 2, common)], num_alts=200),
    ], num_configs=255, num_interfaces=255))
    write("device_format", "stereo_16_device", u8(0, 0, 16, 2, 2) + record(3, [
        interface(0, [alt(16, 2, (44100, 48000, 88200, 96000))]),
        interface(1, [alt(16, 2, (44100, 48000), endpoints=((196, 0x81),)),
                      alt(24, 4, (48000,), endpoints=((2, 0x81), (196, 0x81)))]),
    ]))
    write("device_format", "output_only_odd_channels", u8(0, 5, 24, 3, 0) + record(4, [
        interface(0, [alt(24, 3, (192000, 176400)), alt(20, 6, (176400,))]),
    ]))


# ---- formats (format_validation, intersection) ----

def ksformat(channels, bits, rate, align=None, extensible=False, size=None, major=AUDIO,
             specifier=WFX, sample_size=None):
    align = channels * bits // 8 if align is None else align
    wfx = u16(0xFFFE if extensible else 1, channels) + u32(rate, rate * align)
    wfx += u16(align, bits, 22 if extensible else 0)
    if extensible:
        wfx += u16(bits) + u32((1 << channels) - 1) + PCM
    natural = 64 + len(wfx)
    header = u32(natural if size is None else size, 0,
                 align if sample_size is None else sample_size, 0) + major + PCM + specifier
    return header + wfx


def format_validation():
    write("format_validation", "capture_2ch_16bit_lower_channels", u8(1, 0) + ksformat(2, 16, 48000))
    write("format_validation", "capture_8ch_24bit_exact", u8(3, 0) + ksformat(8, 24, 48000))
    write("format_validation", "render_extensible_44100", u8(2, 0) +
          ksformat(2, 24, 44100, extensible=True))
    write("format_validation", "locked_other_rate", u8(0, 1) + ksformat(2, 16, 48000))
    write("format_validation", "format_size_81", u8(0, 0) + ksformat(2, 16, 48000, size=81))
    write("format_validation", "twenty_bits", u8(1, 0) + ksformat(2, 20, 48000, align=6))
    write("format_validation", "specifier_none", u8(0, 0) + ksformat(2, 16, 48000, specifier=NONE))


def audio_range(channels, min_bits, max_bits, min_rate, max_rate, sub=PCM, size=88):
    # 84 bytes of fields, padded to the 8-byte alignment of KSDATARANGE.
    return (u32(size, 0, 0, 0) + AUDIO + sub + WFX +
            u32(channels, min_bits, max_bits, min_rate, max_rate) + bytes(4))


def intersection():
    wide = audio_range(8, 8, 32, 8000, 192000)
    # pin, own range index, output length index, flags, hardware rate index, lock index
    write("intersection", "capture_pin_wide_client", u8(0, 0, 0, 16, 0, 0) + wide)
    write("intersection", "render_pin_capture_open", u8(2, 1, 0, 16 | 4, 0, 0) + wide)
    write("intersection", "size_query", u8(2, 0, 1, 16, 0, 0) + wide)
    write("intersection", "bridge_pin", u8(1, 0, 0, 16, 0, 0) + wide)
    write("intersection", "mono_client", u8(0, 2, 0, 16, 1, 2) +
          audio_range(1, 16, 24, 44100, 48000))
    mine = audio_range(6, 16, 24, 48000, 48000)
    write("intersection", "fuzzed_own_range", u8(0, 200, 0, 16 | 32, 0, 0) + u8(len(mine)) +
          mine + wide)
    write("intersection", "analog_client", u8(2, 0, 2, 16, 0, 0) +
          audio_range(2, 16, 16, 48000, 48000, sub=ANALOG))
    # A fuzzed range of several rates under a digital lock: the lock is
    # judged on the lowest common rate, the result carries the highest.
    several = audio_range(8, 8, 32, 8000, 192000)
    write("intersection", "several_rates_under_lock", u8(0, 200, 0, 16 | 32, 1, 2) +
          u8(len(several)) + several + audio_range(2, 16, 24, 44100, 48000))


# ---- period_exchange ----

def period_exchange():
    plain = u8(1)
    # capture header: channels, frames, write position, write offset (choices), exclusive
    # render header: channels, frames, write position, write offset, read position (choices)
    two_passes = u8(0, 0, 0, 2, 0) + u8(0, 0, 0, 0, 0)
    write("period_exchange", "both_streams_two_passes", plain + plain + u8(0) + two_passes + u32(2))
    write("period_exchange", "idle_channels_one_pass", u8(0, 0, 0) + u8(0, 0, 0, 1, 1) +
          u8(0, 0, 0, 0, 0) + u32(0))
    shaped = u8(1 | 2 | 4) + u32(2, 7, ) + u8(1) + u32(3)
    write("period_exchange", "shape_does_not_fit_the_ring", shaped + u8(1 | 2) + u32(40, 39) +
          u8(2) + u8(0) + two_passes + u32(1))
    write("period_exchange", "broken_headers", plain + plain + u8(0) + u8(5, 5, 0, 2, 0) +
          u8(7, 4, 0, 0, 0) + u32(2))
    write("period_exchange", "not_attached_yet_no_capture_ring", plain + plain + u8(2) +
          two_passes[:5] + u8(0, 0, 0, 0, 1) + u32(0))
    write("period_exchange", "off_grid_offset_wrapping", u8(1 | 8) + u32(1000) + u8(1 | 8) +
          u32(16383) + u8(0) + u8(0, 0, 1, 2, 0) + u8(0, 0, 1, 3, 2) + u32(2))


# ---- profile ----

def profile():
    folder = os.path.join(CORPUS, "profile")
    os.makedirs(folder, exist_ok=True)
    for name in sorted(os.listdir(os.path.join(HERE, "..", "usbsim", "profiles"))):
        shutil.copy(os.path.join(HERE, "..", "usbsim", "profiles", name),
                    os.path.join(folder, name))
    write("profile", "number_too_large", b"55e333")
    write("profile", "unknown_field", json.dumps({"name": "x", "colour": "red"}).encode())
    write("profile", "too_many_rates", json.dumps({"configurations": [{"interfaces": [
        {"direction": "input", "altSettings": [
            {"bits": 24, "channels": 2, "rates": list(range(44100, 44117)),
             "endpoints": [{"maxPacketSize": 512, "address": "0x81"}]}]}]}]}).encode())
    write("profile", "fractional_rate", b'{"hardware": {"fr": 44100.5}}')


# ---- pe_image ----

def u64(*v):
    return struct.pack("<%dQ" % len(v), *v)


def pe(imports=((b"ntoskrnl.exe", [b"DbgPrint"]),), machine=0x8664, subsystem=1,
       relocs=((10, 0x1008),), ordinal=False, text_flags=0x60000020, characteristics=0x22,
       directories=None, section_alignment=0x1000, checksum=True):
    """A minimal native x64 image: .text (ret and one absolute address),
    .idata (the given imports), .reloc and .pdata (the ret's unwind data),
    laid out as ld lays out a .sys, with its CheckSum."""
    idata = bytearray(0x200)
    descriptors, data_at = 0, 20 * (len(imports) + 1)
    for dll, names in imports:
        lookup = data_at
        slots = lookup + 8 * (len(names) + 1)
        name_at = slots + 8 * (len(names) + 1)
        idata[name_at:name_at + len(dll) + 1] = dll + b"\0"
        at = name_at + len(dll) + 2
        for i, name in enumerate(names):
            thunk = (1 << 63 | 7) if ordinal else 0x2000 + at
            idata[lookup + 8 * i:lookup + 8 * i + 8] = u64(thunk)
            idata[slots + 8 * i:slots + 8 * i + 8] = u64(thunk)
            idata[at + 2:at + 3 + len(name)] = name + b"\0"
            at += 4 + len(name)
        idata[descriptors:descriptors + 20] = u32(0x2000 + lookup, 0, 0, 0x2000 + name_at,
                                                  0x2000 + slots)
        descriptors += 20
        data_at = (at + 7) & ~7
    page = relocs[0][1] & ~0xfff
    entries = [t << 12 | (rva - page) for t, rva in relocs]
    entries += [0] * (len(entries) % 2)
    reloc = u32(page, 8 + 2 * len(entries)) + u16(*entries)
    text = u8(0xc3) + bytes(7) + u64(0x140001000)
    pdata = u32(0x1000, 0x1001, 0x400c) + u8(1, 0, 0, 0)
    sections = [(b".text", 0x1000, len(text), 0x200, text_flags, text),
                (b".idata", 0x2000, 0x200, 0x400, 0xC0000040, bytes(idata)),
                (b".reloc", 0x3000, len(reloc), 0x600, 0x42000040, reloc),
                (b".pdata", 0x4000, len(pdata), 0x800, 0x40000040, pdata)]
    table = [(0, 0)] * 16
    table[1] = (0x2000, 20 * (len(imports) + 1))
    table[3] = (0x4000, 12)
    table[5] = (0x3000, len(reloc))
    for index, entry in (directories or {}).items():
        table[index] = entry
    optional = (u16(0x20b) + u8(2, 40) + u32(0x200, 0x400, 0, 0x1000, 0x1000) +
                u64(0x140000000) + u32(section_alignment, 0x200) + u16(6, 0, 0, 0, 6, 0) +
                u32(0, 0x5000, 0x200, 0) + u16(subsystem, 0x160) +
                u64(0x100000, 0x1000, 0x100000, 0x1000) + u32(0, 16) +
                b"".join(u32(*d) for d in table))
    headers = (b"MZ" + bytes(0x3a) + u32(0x40) + b"PE\0\0" +
               u16(machine, len(sections)) + u32(0, 0, 0) + u16(len(optional), characteristics) +
               optional)
    for name, va, vsize, raw, flags, _ in sections:
        headers += name.ljust(8, b"\0") + u32(vsize, va, 0x200, raw, 0, 0) + u16(0, 0) + u32(flags)
    image = bytearray(headers.ljust(0x200, b"\0"))
    for _, _, _, raw, _, data in sections:
        image += data.ljust(0x200, b"\0")
    if checksum:
        field = 0x40 + 24 + 64
        total = 0
        for (word,) in struct.iter_unpack("<H", bytes(image[:field]) + bytes(4) + bytes(image[field + 4:])):
            total += word
            total = (total & 0xFFFF) + (total >> 16)
        image[field:field + 4] = u32(((total & 0xFFFF) + (total >> 16)) + len(image))
    return bytes(image)


def pe_image():
    write("pe_image", "minimal_driver", pe())
    write("pe_image", "two_dlls", pe(((b"ntoskrnl.exe", [b"ExAllocatePoolWithTag",
                                                           b"ExFreePoolWithTag"]),
                                       (b"portcls.sys", [b"PcNewPort"]))))
    write("pe_image", "import_the_host_lacks", pe(((b"HAL.dll", [b"KeStallExecutionProcessor"]),)))
    write("pe_image", "import_by_ordinal", pe(ordinal=True))
    write("pe_image", "highlow_relocation", pe(relocs=((3, 0x1008),)))
    write("pe_image", "relocation_past_the_image", pe(relocs=((10, 0x5ff8),)))
    write("pe_image", "i386_machine", pe(machine=0x14c))
    write("pe_image", "console_subsystem", pe(subsystem=3))
    write("pe_image", "cut_short", pe()[:0x300])
    # What Windows, its code integrity check or memory integrity refuse.
    write("pe_image", "writable_code", pe(text_flags=0xE0000020))
    write("pe_image", "wrong_checksum", pe()[:0x200] + u8(0xc2) + pe()[0x201:])
    write("pe_image", "relocations_stripped", pe(characteristics=0x23))
    write("pe_image", "no_exception_directory", pe(directories={3: (0, 0)}))
    write("pe_image", "tls_directory", pe(directories={9: (0x2100, 40)}))
    write("pe_image", "import_table_in_code", pe(directories={12: (0x1000, 8)}))
    write("pe_image", "export_table_in_code", pe(directories={0: (0x1000, 40)}))
    write("pe_image", "section_alignment_512", pe(section_alignment=0x200))

# fuzz_device_life: a setup byte (1: the open-source port, 2: services on the
# DPC thread), then events, each its number and its argument bytes.
(OPEN, STATE, FORMAT, WRITE, READ, CLOSE, PERIODS, MME_ATTACH, MME_DETACH, ASIO_ATTACH,
 ASIO_DETACH, TIMED_START, RATE_REPORTED, REFUSE_CHANGES, EXCLUSIVE_INPUTS, DIGITAL_LOCK, UNPLUG,
 REPLUG, SLEEP, TIMER_EXPIRY, FAIL_ALLOCATION, CONCURRENT_SERVICE) = range(22)
STOP, ACQUIRE, PAUSE, RUN = range(4)
# Indexes into the target's format table.
F48_16, F48_24, F44_16, F96_8CH_24, F192_24, F48_8CH_16, F48_32, F48_MONO = range(8)
F47999, F3CH, F_SAMPLE_SIZE_0, F_SAMPLE_SIZE_4, F8000, F12CH = range(8, 14)


def life(setup, *events):
    return u8(setup) + b"".join(events)


def open_pin(slot, capture, fmt, extensible=1):
    return u8(OPEN, slot, capture, fmt, extensible)


def state(slot, target):
    return u8(STATE, slot, target)


def fmt(slot, index):
    return u8(FORMAT, slot, index)


def write_(slot, periods):
    return u8(WRITE, slot, periods - 1)


def periods(n):
    return u8(PERIODS, n - 1)


def play(slot, rounds):
    return (write_(slot, 4) + periods(4)) * rounds


def device_life():
    render = open_pin(1, 0, F48_16) + write_(1, 16) + state(1, RUN)
    capture = open_pin(0, 1, F48_24) + state(0, RUN)
    write("device_life", "render_plays", life(0, render + play(1, 12) + u8(CLOSE, 1)))
    write("device_life", "render_24_bit_open_source_port",
          life(1, open_pin(1, 0, F48_24) + write_(1, 16) + state(1, RUN) + play(1, 12)))
    write("device_life", "capture_records_while_render_plays",
          life(0, capture + render + (u8(READ, 0) + play(1, 1)) * 12))
    # A refused format shapes the channel for other frames; the first start
    # carries the stream's own format into the buffer the port holds.
    write("device_life", "refused_format_before_the_first_start",
          life(0, open_pin(1, 0, F48_16) + state(1, PAUSE) + fmt(1, F48_32) + write_(1, 16) +
               state(1, RUN) + play(1, 12)))
    write("device_life", "format_changes_in_every_state",
          life(0, open_pin(1, 0, F48_16) + fmt(1, F48_24) + state(1, ACQUIRE) + fmt(1, F44_16) +
               state(1, PAUSE) + fmt(1, F48_32) + state(1, RUN) + fmt(1, F48_16) + periods(4) +
               fmt(1, F47999) + fmt(1, F_SAMPLE_SIZE_0) + state(1, STOP) +
               fmt(1, F_SAMPLE_SIZE_4) + fmt(1, F12CH)))
    write("device_life", "second_pin_of_a_direction",
          life(0, render + open_pin(2, 0, F48_16) + state(2, RUN) + play(1, 2) + u8(CLOSE, 1) +
               open_pin(1, 1, F96_8CH_24) + state(1, RUN) + periods(8)))
    write("device_life", "asio_takes_the_device",
          life(0, render + play(1, 2) + u8(ASIO_ATTACH) + periods(8) + u8(ASIO_DETACH) +
               u8(TIMER_EXPIRY) + u16(1200) + play(1, 4)))
    write("device_life", "mme_detach_and_timed_start",
          life(0, render + play(1, 2) + u8(MME_DETACH) + periods(4) + u8(TIMED_START) +
               play(1, 3) + u8(MME_ATTACH, 1) + play(1, 2)))
    write("device_life", "rate_reported_then_refused_changes",
          life(0, render + play(1, 2) + u8(RATE_REPORTED, 2) + play(1, 2) +
               u8(REFUSE_CHANGES, 1) + state(1, STOP) + fmt(1, F96_8CH_24) + u8(REFUSE_CHANGES, 0) +
               fmt(1, F192_24) + state(1, RUN) + play(1, 2)))
    write("device_life", "exclusive_inputs_and_digital_lock",
          life(0, capture + u8(EXCLUSIVE_INPUTS, 1) + periods(8) + u8(READ, 0) +
               u8(DIGITAL_LOCK, 1) + periods(4) + u8(DIGITAL_LOCK, 2) + state(0, STOP) +
               fmt(0, F44_16) + u8(DIGITAL_LOCK, 0) + u8(EXCLUSIVE_INPUTS, 0) + state(0, RUN) +
               periods(8)))
    write("device_life", "unplug_while_running_then_replug",
          life(0, render + capture + play(1, 2) + u8(UNPLUG) + periods(4) + state(1, STOP) +
               u8(CLOSE, 1) + u8(REPLUG) + render + play(1, 4)))
    write("device_life", "replug_with_pins_still_open",
          life(2, render + u8(UNPLUG, REPLUG) + open_pin(2, 1, F48_16) + play(1, 2)))
    write("device_life", "sleep_while_running",
          life(0, render + capture + play(1, 2) + u8(SLEEP, 50) + periods(8) + play(1, 4)))
    write("device_life", "allocation_failures_at_open",
          life(0, u8(FAIL_ALLOCATION, 0) + open_pin(1, 0, F48_16) + u8(FAIL_ALLOCATION, 3) +
               open_pin(0, 1, F48_16) + u8(FAIL_ALLOCATION, 10) + render + play(1, 2)))
    write("device_life", "services_on_the_dpc_thread",
          life(2, render + capture + (u8(READ, 0) + play(1, 1)) * 4 + u8(CONCURRENT_SERVICE, 0) +
               open_pin(2, 0, F48_16)))
    write("device_life", "timer_expires_while_closing",
          life(0, u8(ASIO_ATTACH, ASIO_DETACH) + render + u8(TIMER_EXPIRY) + u16(1) + u8(CLOSE, 1) +
               u8(TIMER_EXPIRY) + u16(1499) + u8(UNPLUG)))


if __name__ == "__main__":
    device_format()
    format_validation()
    intersection()
    period_exchange()
    profile()
    pe_image()
    device_life()
