/* A small ALSA program for what the stock programs in alsa_programs_test.sh
 * do not do. It plays a 16- or 24-bit WAV file written by wavcheck.py on an
 * ALSA PCM and says on stderr what went wrong; the device's output is
 * checked by the script.
 *
 *   mme_client PCM FILE delay    writes the file, then waits for
 *                                snd_pcm_delay to reach 0, never draining
 *   mme_client PCM FILE pause    pauses three times while playing; the
 *                                delay must hold still in each pause
 *   mme_client PCM FILE threads  opens in the main thread, plays from one
 *                                thread while another reads the delay,
 *                                closes from a third
 *   mme_client PCM FILE chmaps   prints the channel maps offered, one a line,
 *                                then the one in force for the file
 */
#include <alsa/asoundlib.h>
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

static snd_pcm_t* pcm;
static char* audio;
static long frames;
static unsigned rate, channels, bits;

static _Noreturn void fail(const char* what, int err) {
    fprintf(stderr, "mme_client: %s: %s\n", what, err < 0 ? snd_strerror(err) : "wrong");
    exit(1);
}

static unsigned little(const unsigned char* p, int n) {
    unsigned v = 0;
    while (n--)
        v = v << 8 | p[n];
    return v;
}

/* The RIFF chunks of a PCM WAV file: its format, and its data read whole. */
static void load(const char* path) {
    FILE* f = fopen(path, "rb");
    unsigned char head[12], chunk[8], fmt[16];
    if (!f || fread(head, 1, 12, f) != 12 || memcmp(head, "RIFF", 4) || memcmp(head + 8, "WAVE", 4))
        fail("not a WAV file", 0);
    while (fread(chunk, 1, 8, f) == 8) {
        const unsigned size = little(chunk + 4, 4);
        if (!memcmp(chunk, "fmt ", 4) && size >= 16 && fread(fmt, 1, 16, f) == 16) {
            channels = little(fmt + 2, 2);
            rate = little(fmt + 4, 4);
            bits = little(fmt + 14, 2);
            fseek(f, size - 16, SEEK_CUR);
        } else if (!memcmp(chunk, "data", 4) && channels && (bits == 16 || bits == 24)) {
            audio = malloc(size);
            if (!audio || fread(audio, 1, size, f) != size)
                fail("short WAV data", 0);
            frames = size / (channels * bits / 8);
            fclose(f);
            return;
        } else {
            fseek(f, size + (size & 1), SEEK_CUR);
        }
    }
    fail("no 16- or 24-bit PCM data", 0);
}

static void setUp(void) {
    const snd_pcm_format_t format = bits == 16 ? SND_PCM_FORMAT_S16_LE : SND_PCM_FORMAT_S24_3LE;
    int err =
        snd_pcm_set_params(pcm, format, SND_PCM_ACCESS_RW_INTERLEAVED, channels, rate, 0, 100000);
    if (err < 0)
        fail("set_params", err);
}

/* Writes frames [from, to) of the file. */
static void play(long from, long to) {
    const long frameBytes = channels * bits / 8;
    while (from < to) {
        snd_pcm_sframes_t n = snd_pcm_writei(pcm, audio + from * frameBytes, to - from);
        if (n < 0)
            fail("write", (int)n);
        from += n;
    }
}

static snd_pcm_sframes_t delayNow(void) {
    snd_pcm_sframes_t delay = 0;
    const int err = snd_pcm_delay(pcm, &delay);
    if (err < 0)
        fail("delay", err);
    return delay;
}

static void* watchDelay(void* playing) {
    while (*(volatile int*)playing) {
        if (delayNow() < 0)
            fail("negative delay while playing", 0);
        usleep(2000);
    }
    return NULL;
}

static void* playAll(void* unused) {
    (void)unused;
    setUp();
    play(0, frames);
    const int err = snd_pcm_drain(pcm);
    if (err < 0)
        fail("drain", err);
    return NULL;
}

static void* closePcm(void* unused) {
    (void)unused;
    snd_pcm_close(pcm);
    return NULL;
}

int main(int argc, char** argv) {
    if (argc != 4)
        fail("usage: mme_client PCM FILE delay|pause|threads|chmaps", 0);
    load(argv[2]);
    int err = snd_pcm_open(&pcm, argv[1], SND_PCM_STREAM_PLAYBACK, 0);
    if (err < 0)
        fail("open", err);
    const char* mode = argv[3];
    if (!strcmp(mode, "delay")) {
        setUp();
        play(0, frames);
        snd_pcm_sframes_t last = frames;
        for (snd_pcm_sframes_t d; (d = delayNow()) > 0; last = d) {
            if (d > last)
                fail("the delay grew after the last write", 0);
            usleep(1000);
        }
    } else if (!strcmp(mode, "pause")) {
        setUp();
        for (int i = 0; i < 3; ++i) {
            play(frames * i / 4, frames * (i + 1) / 4);
            if ((err = snd_pcm_pause(pcm, 1)) < 0)
                fail("pause", err);
            usleep(150000); /* what was on its way plays out */
            const snd_pcm_sframes_t paused = delayNow();
            usleep(100000);
            if (delayNow() != paused || paused <= 0)
                fail("the delay moved in a pause", 0);
            if ((err = snd_pcm_pause(pcm, 0)) < 0)
                fail("resume", err);
        }
        play(frames * 3 / 4, frames);
        if ((err = snd_pcm_drain(pcm)) < 0)
            fail("drain", err);
    } else if (!strcmp(mode, "threads")) {
        pthread_t player, watcher, closer;
        int playing = 1;
        pthread_create(&player, NULL, playAll, NULL);
        usleep(200000);
        pthread_create(&watcher, NULL, watchDelay, &playing);
        pthread_join(player, NULL);
        playing = 0;
        pthread_join(watcher, NULL);
        pthread_create(&closer, NULL, closePcm, NULL);
        pthread_join(closer, NULL);
        return 0;
    } else if (!strcmp(mode, "chmaps")) {
        char text[256];
        snd_pcm_chmap_query_t** maps = snd_pcm_query_chmaps(pcm);
        for (int i = 0; maps && maps[i]; ++i)
            if (snd_pcm_chmap_print(&maps[i]->map, sizeof text, text) >= 0)
                printf("%s\n", text);
        snd_pcm_free_chmaps(maps);
        setUp();
        snd_pcm_chmap_t* map = snd_pcm_get_chmap(pcm);
        if (!map || snd_pcm_chmap_print(map, sizeof text, text) < 0)
            fail("no channel map in force", 0);
        printf("in force: %s\n", text);
        free(map);
    } else {
        fail("unknown mode", 0);
    }
    snd_pcm_close(pcm);
    return 0;
}
