#!/usr/bin/env bash
# Real ALSA programs (aplay, arecord, speaker-test, sox) against the mme
# plugin, with a private ALSA configuration: the system's alsa.conf without
# the hook that loads the machine's and the user's files (/etc/asound.conf,
# ~/.asoundrc), and pcm.mme* naming the plugin by its path in the build. The
# device runs in real time: files are short. "play" and "unplug" also run
# through the Windows build of the driver (IMAGE.sys) when it was built.
#
#   alsa_programs_test.sh PLUGIN.so SOURCE_DIR CASE [IMAGE.sys]
# CASE: play | record | refuse | stall | others | unplug
set -euo pipefail

plugin=$1 source=$2 case=$3 image=${4:-}
check="python3 $source/alsa/tests/wavcheck.py"
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work"

awk '/^@hooks \[/ { skip = 1 } !skip { print } skip && /^\]/ { skip = 0 }' \
    /usr/share/alsa/alsa.conf >alsa.conf
cat >asound.conf <<EOF
<$work/alsa.conf>
pcm_type.mme { lib "$plugin" }
pcm.mme { type mme output "wav:$work/device.wav" summary "$work/summary" }
pcm.mme_pattern { type mme input "pattern" summary "$work/summary" }
pcm.mme_locked { type mme profile "$source/usbsim/profiles/spdif-locked.json" }
pcm.mme_sys { type mme driver "$work/mmeusbaudio.sys" }
pcm.mme_image { type mme driver "$image" output "wav:$work/device.wav" summary "$work/summary" }
pcm.mme_typo { type mme ouptut "null" }
pcm.mme_badunplug { type mme unplug "1:-1" }
EOF
# Pulled out 1 s into the stream, back 0.5 s later: by the plugin's parameter
# or by the device profile's schedule (188 periods of 256 frames at 48000 Hz).
for driver in linked "$image"; do
    [ "$driver" = linked ] && suffix= || suffix=_image
    cat >>asound.conf <<EOF
pcm.mme_unplug$suffix { type mme driver "$driver" unplug "1:0.5" summary "$work/summary" }
pcm.mme_unplug_profile$suffix { type mme driver "$driver" profile "$work/unplug.json" summary "$work/summary" }
EOF
done
export ALSA_CONFIG_PATH=$work/asound.conf HOME=$work

fail() {
    echo "FAIL: $*"
    exit 1
}
# A value of the plugin's summary of the last PCM closed.
summary() { awk -v k="$1" '$1 == k { print $2 }' summary; }
clean_close() { [ "$(summary teardown)" = clean ] || fail "teardown: $(cat summary)"; }

case $case in
play) # the device's output holds the file bit-exact, from its first frame
    for format in "44100 16 2 44100" "96000 24 2 96000"; do
        set -- $format
        $check make "in$1.wav" "$@"
        aplay -q -D mme "in$1.wav"
        $check played "in$1.wav" device.wav
        clean_close
        [ "$(summary glitches)" = 0 ] || fail "glitches while playing: $(cat summary)"
    done
    # The same through the Windows build of the driver, when there is one.
    if [ -f "$image" ]; then
        aplay -q -D mme_image in44100.wav
        $check played in44100.wav device.wav
        clean_close
    fi
    ;;
record) # what the device hears, sample by sample, at both widths
    arecord -q -D mme_pattern -f S24_3LE -c 2 -r 48000 -d 1 take24.wav
    $check pattern take24.wav
    clean_close
    arecord -q -D mme_pattern -f S16_LE -c 8 -r 44100 -s 22050 take16.wav
    $check pattern take16.wav
    clean_close
    [ "$(summary overruns)" = 0 ] || fail "overruns while recording: $(cat summary)"
    ;;
refuse) # the locked digital input allows 44100 Hz only; the driver says why
    $check make in48.wav 48000 16 2 4800
    if aplay -q -D mme_locked in48.wav 2>err.txt; then
        fail "aplay played 48000 Hz on a device locked at 44100 Hz"
    fi
    grep -q 'the driver refused render at 48000/2/16: STATUS_NOT_SUPPORTED: "samplerate not allowed requested/digital 48000 44100"' err.txt ||
        fail "no reason from the driver: $(cat err.txt)"
    $check make in44.wav 44100 16 2 4410
    aplay -q -D mme_locked in44.wav || fail "the locked rate was refused too"
    # Parameters the plugin cannot follow: refused with what is wrong.
    for pcm in "mme_sys:cannot load the driver image" "mme_typo:unknown field ouptut" \
        'mme_badunplug:unplug "1:-1": use AT\[:REPLUG_AFTER\]'; do
        if aplay -q -D "${pcm%%:*}" in44.wav 2>err.txt; then fail "${pcm%%:*} played"; fi
        grep -q "${pcm#*:}" err.txt || fail "${pcm%%:*}: $(cat err.txt)"
    done
    ;;
stall) # stopped for a second: underrun, recovery, glitches for the gap
    rate=44100
    $check make in.wav $rate 16 2 $((rate * 3))
    aplay -v -D mme --buffer-size=8820 in.wav >log.txt 2>&1 &
    pid=$!
    # Half a second into the playing: the device is up and aplay has started.
    for _ in $(seq 100); do grep -q buffer_size log.txt && break || sleep 0.05; done
    sleep 0.5
    stopped=$(date +%s%N)
    kill -STOP $pid
    sleep 1
    kill -CONT $pid
    gap=$((($(date +%s%N) - stopped) * rate / 1000000000))
    wait $pid || fail "aplay did not recover: $(cat log.txt)"
    grep -q 'underrun!!!' log.txt || fail "aplay saw no underrun: $(cat log.txt)"
    clean_close
    buffer=$(awk '$1 == "buffer_size" { print $3 }' log.txt)
    # The longest underrun: the device played silence for the gap less what
    # was queued (at most the buffer and the port's lead of about 40 ms in
    # whole periods), and until aplay, thawed, saw the underrun (quick,
    # unless the machine is busy); one glitch per 256-frame period of it.
    read -r glitches silence < <(awk '$1 == "xrun" { print $4, $6 }' summary | sort -k2n | tail -1)
    lead=$(((rate / 25 + 511) / 256 * 256))
    low=$((gap - buffer - lead - rate / 20)) high=$((gap + rate / 2))
    ((silence >= low && silence <= high)) ||
        fail "silence $silence frames for a gap of $gap frames and a buffer of $buffer"
    ((glitches * 256 >= silence && glitches * 256 <= silence + 512)) ||
        fail "$glitches glitches for $silence frames of silence"
    ;;
others) # speaker-test sounds every channel; sox plays through the plugin
    sox -n -r 48000 -b 16 -c 1 beep.wav synth 0.2 sine 660
    speaker-test -D mme -c 8 -l 1 -t wav -w "$work/beep.wav" >log.txt 2>&1 || fail "$(cat log.txt)"
    $check sounding device.wav 8
    clean_close
    $check make in.wav 48000 24 2 24000
    sox -q in.wav -t alsa mme || fail "sox could not play"
    $check played in.wav device.wav
    clean_close
    ;;
unplug) # the program's disconnect error at once, a clean close, and the
    # replugged device plays for a PCM opened after it
    $check make in.wav 48000 16 2 $((48000 * 3))
    python3 -c 'import json, sys
profile = json.load(open(sys.argv[1]))
profile["schedule"] = [{"period": 188, "event": "unplug", "value": 500}]
json.dump(profile, sys.stdout)' "$source/usbsim/profiles/default.json" >unplug.json
    suffixes=("")
    [ -f "$image" ] && suffixes+=(_image)
    for suffix in "${suffixes[@]}"; do
        for run in "aplay -D mme_unplug$suffix in.wav" \
            "arecord -D mme_unplug_profile$suffix -f S16_LE -c 2 -r 48000 -d 3 take.wav"; do
            start=$(date +%s%N) status=0
            timeout -k 1 10 $run >log.txt 2>&1 || status=$?
            ms=$((($(date +%s%N) - start) / 1000000))
            # 1 means the program gave up on its own; the timeout's would be 124.
            [ $status = 1 ] && grep -q 'error: No such device' log.txt ||
                fail "$run: exit $status: $(cat log.txt)"
            ((ms >= 1000 && ms < 2000)) || fail "$run ended after $ms ms; the unplug was at 1 s"
            clean_close
        done
        # One process across the unplug and the replug: the dead PCM stays
        # open without costing CPU, a PCM opened after the replug plays, and
        # the last close still finds everything cleaned up.
        python3 - "mme_unplug$suffix" <<'EOF' || fail "one process across the replug"
import ctypes, resource, sys, time
alsa = ctypes.CDLL("libasound.so.2")
alsa.snd_pcm_writei.restype = ctypes.c_long
def opened():
    pcm = ctypes.c_void_p()
    assert alsa.snd_pcm_open(ctypes.byref(pcm), sys.argv[1].encode(), 0, 0) == 0
    # S16_LE, interleaved, 2 channels, 48000 Hz, 0.5 s of buffer
    assert alsa.snd_pcm_set_params(pcm, 2, 3, 2, 48000, 0, 500000) == 0
    return pcm
def play(pcm, tenths):
    silence = ctypes.create_string_buffer(4 * 4800)
    for _ in range(tenths):
        written = alsa.snd_pcm_writei(pcm, silence, 4800)
        if written < 0:
            return written
    return alsa.snd_pcm_drain(pcm)
def cpu():
    usage = resource.getrusage(resource.RUSAGE_SELF)
    return usage.ru_utime + usage.ru_stime
old = opened()
assert play(old, 30) == -19, "no ENODEV"
before = cpu()
time.sleep(1)
assert cpu() - before < 0.2, "busy while unplugged"
new = opened()
assert play(new, 5) == 0, "the replugged device did not play"
assert alsa.snd_pcm_close(old) == 0 and alsa.snd_pcm_close(new) == 0
EOF
        clean_close
    done
    ;;
*)
    fail "unknown case $case"
    ;;
esac
echo "PASS: $case"
