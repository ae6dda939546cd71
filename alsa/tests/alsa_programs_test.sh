#!/usr/bin/env bash
# Real ALSA programs (aplay, arecord, speaker-test, sox, alsaloop, ffmpeg,
# jackd and its clients) against the mme plugin, with a private ALSA
# configuration: the system's alsa.conf without the hook that loads the
# machine's and the user's files (/etc/asound.conf, ~/.asoundrc), and
# pcm.mme* naming the plugin by its path in the build. The device runs in
# real time: files are short. "play", "unplug" and "client" also run through
# the Windows build of the driver (IMAGE.sys) when it was built.
#
#   alsa_programs_test.sh PLUGIN.so SOURCE_DIR CASE [IMAGE.sys [CLIENT]]
# CASE: play | record | refuse | stall | others | unplug | small | loop | jack | client
# CLIENT: mme_client, the small ALSA program of the "client" case
set -euo pipefail

plugin=$1 source=$2 case=$3 image=${4:-} client=${5:-}
check="python3 $source/alsa/tests/wavcheck.py"
work=$(mktemp -d)
# Programs a failed case leaves running; a jackd killed without its
# interrupt leaves its server in JACK's shared registry, which holds 8.
jack_server= jack_player=
cleanup() {
    [ -z "$jack_player" ] || kill "$jack_player" 2>/dev/null || true
    if [ -n "$jack_server" ] && kill -INT "$jack_server" 2>/dev/null; then
        for _ in 1 2 3 4 5 6 7 8 9 10; do
            kill -0 "$jack_server" 2>/dev/null || break
            sleep 0.5
        done
        kill -KILL "$jack_server" 2>/dev/null || true
    fi
    rm -rf "$work"
}
trap cleanup EXIT
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
pcm.mme_loop { type mme input "wav:$work/in.wav" output "wav:$work/device.wav" summary "$work/summary" }
pcm.mme_jack { type mme input "sine:997:0.5" summary "$work/summary" }
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
# A value of the plugin's summary of the last PCM closed (the PCMs of one
# process add a block each).
summary() { awk -v k="$1" '$1 == k { v = $2 } END { print v }' summary; }
clean_close() { [ "$(summary teardown)" = clean ] || fail "teardown: $(cat summary)"; }
# Every stream of the summary moved its audio without a gap or an xrun.
no_xrun() {
    awk '$1 ~ /^(glitches|overruns|xruns)$/ && $2 != 0 { bad = 1 } END { exit bad }' summary ||
        fail "$1: $(cat summary)"
}

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
stall) # stopped for a second: underrun, recovery, glitches for the gap, nothing lost
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
    # The underrun came once the device had played all aplay had written:
    # every frame of the file reached it, with silence only in the gap.
    $check within in.wav device.wav $((rate * 3))
    # ALSA's length of it is no longer than the stop (it starts when the
    # plugin, thawed with its device, sees it).
    awk -v gap=$gap -v rate=$rate '/underrun!!!/ && $4 * rate / 1000 > gap { bad = 1 }
        END { exit bad }' log.txt || fail "an underrun longer than the stop: $(grep underrun log.txt)"
    buffer=$(awk '$1 == "buffer_size" { print $3 }' log.txt)
    # The longest underrun: the device played silence for the gap less what
    # was queued (the buffer and the period the port holds), and until aplay,
    # thawed, saw the underrun (quick, unless the machine is busy); one
    # glitch per 256-frame period of it.
    read -r glitches silence < <(awk '$1 == "xrun" { print $4, $6 }' summary | sort -k2n | tail -1)
    low=$((gap - buffer - 256 - rate / 20)) high=$((gap + rate / 2))
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
small) # periods of the device's 256 frames at least; starts with less queued
    # aplay asks for 255-frame periods and starts with its first: it gets 256
    # (the constraints are in bytes, so 8 channels of 24 bits get 256 exactly
    # and 2 of 16 bits more) and plays bit-exact without an xrun.
    for format in "8 24" "2 16"; do
        set -- $format
        $check make in.wav 48000 $2 $1 48000
        aplay -v -D mme --period-size=255 -R 1 in.wav >log.txt 2>&1 || fail "$(cat log.txt)"
        period=$(awk '$1 == "period_size" { print $3 }' log.txt)
        ((period >= 256)) || fail "a period of $period frames for $1 channels of $2 bits"
        $check played in.wav device.wav
        no_xrun "aplay, $1 channels of $2 bits"
    done
    # ffmpeg writes packets of 170 frames and starts with the first.
    $check make in.wav 48000 24 8 48000
    ffmpeg -nostdin -loglevel error -i in.wav -c:a pcm_s24le -f alsa mme 2>log.txt ||
        fail "ffmpeg could not play: $(cat log.txt)"
    $check played in.wav device.wav
    no_xrun ffmpeg
    clean_close
    ;;
loop) # alsaloop sets up both directions before it starts either, at the
    # hardware's rate and at others: its loop through the device is bit-exact
    for rate in 44100 96000; do
        $check make in.wav $rate 16 2 $((rate * 3))
        status=0
        timeout -s INT 2.5 alsaloop -C mme_loop -P mme_loop -f S16_LE -c 2 -r $rate -S 0 \
            -t 100000 >log.txt 2>&1 || status=$?
        ((status == 0 || status == 124)) || fail "alsaloop at $rate: $(cat log.txt)"
        # What the device heard from its start, less what went by before the
        # capture started, came out after alsaloop's latency.
        $check within in.wav device.wav $rate
        no_xrun "alsaloop at $rate"
        clean_close
    done
    # One rate serves both directions: a second direction at another rate is
    # refused when it sets its parameters, saying why.
    python3 - 2>err.txt <<'EOF' || fail "duplex at two rates: $(cat err.txt)"
import ctypes
alsa = ctypes.CDLL("libasound.so.2")
play, record = ctypes.c_void_p(), ctypes.c_void_p()
assert alsa.snd_pcm_open(ctypes.byref(play), b"mme_loop", 0, 0) == 0
assert alsa.snd_pcm_open(ctypes.byref(record), b"mme_loop", 1, 0) == 0
# S16_LE, interleaved, 2 channels, no resampling, 0.1 s
assert alsa.snd_pcm_set_params(play, 2, 3, 2, 44100, 0, 100000) == 0
assert alsa.snd_pcm_set_params(record, 2, 3, 2, 48000, 0, 100000) == -22
assert alsa.snd_pcm_set_params(record, 2, 3, 2, 44100, 0, 100000) == 0
EOF
    grep -q 'capture at 48000 Hz: the device runs at 44100 Hz for the other direction' err.txt ||
        fail "no reason for the refusal: $(cat err.txt)"
    ;;
jack) # jackd at 256 x 2 with a playing and a recording client, then at 96000
    export JACK_DEFAULT_SERVER=mme$$
    jack() { # RATE SECONDS: jackd, jack_simple_client and jack_rec for SECONDS
        jackd -n $JACK_DEFAULT_SERVER -d alsa -d mme_jack -r $1 -p 256 -n 2 >jackd.txt 2>&1 &
        jack_server=$!
        timeout 10 jack_wait -w >/dev/null || fail "jackd did not start at $1: $(cat jackd.txt)"
        jack_simple_client >/dev/null 2>&1 &
        jack_player=$!
        jack_rec -f rec.wav -d $2 -b 16 system:capture_1 system:capture_2 >/dev/null 2>&1 ||
            fail "jack_rec at $1"
        kill $jack_player
        jack_player=
        kill -INT $jack_server
        wait $jack_server || true
        jack_server=
        [ "$(soxi -s rec.wav)" = $(($1 * $2)) ] || fail "jack_rec recorded $(soxi -s rec.wav) frames"
        grep -q "stream render $1/8/24" summary && grep -q "stream capture $1/8/24" summary ||
            fail "jackd at $1: $(cat summary)"
        clean_close
    }
    # 20 s without an xrun, for jackd and for the plugin.
    jack 48000 20
    ! grep -i xrun jackd.txt || fail "jackd saw xruns"
    no_xrun "jackd at 48000"
    # Both directions start at another rate (where 2.7 ms periods leave
    # jackd's own client changes no room on a busy machine).
    jack 96000 2
    ;;
client) # what no stock program does: a small plugin client of its own
    $check make in.wav 48000 16 2 $((48000 * 2))
    # Writes its last frames and waits for the delay to reach 0: every frame
    # reached the device, and no underrun came while any was on its way.
    $client mme in.wav delay || fail "waiting for the delay"
    $check played in.wav device.wav
    [ "$(summary xruns)" = 0 ] || fail "xrun before the delay reached 0: $(cat summary)"
    # Three pauses: nothing lost, and the delay holds in each.
    $client mme in.wav pause || fail "pause and resume"
    $check within in.wav device.wav $((48000 * 2))
    no_xrun "pause and resume"
    # The channel maps follow the driver's ring channels.
    $check make in.wav 48000 24 8 4800
    $client mme in.wav chmaps >maps.txt || fail "channel maps"
    for map in "FL FR" "FL FR FC LFE RL RR" "in force: FL FR FC LFE RL RR FLC FRC"; do
        grep -qx "$map" maps.txt || fail "no channel map $map: $(cat maps.txt)"
    done
    # The program's own threads call the plugin; on the image each must be
    # given its own processor state before driver code runs on it.
    [ -f "$image" ] && pcm=mme_image || pcm=mme
    $check make in.wav 48000 16 2 48000
    $client $pcm in.wav threads 2>err.txt || fail "threads: $(cat err.txt)"
    ! grep -q verifier err.txt || fail "threads: $(cat err.txt)"
    $check played in.wav device.wav
    clean_close
    ;;
*)
    fail "unknown case $case"
    ;;
esac
echo "PASS: $case"
