// Random sequences of methods, pauses, faults, settings and restarts: the daemon does what the model does.
//
// PTZD_MODEL_SEED=N plays one sequence, PTZD_MODEL_SEQUENCES=N so many, PTZD_LONG_TESTS a few thousand.

#include "player.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <random>
#include <string>

namespace {

using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

constexpr auto SHRINK_TIME = 90s;

std::optional<uint32_t> environmentNumber(const char* name)
{
    const char* text = getenv(name);
    return text ? std::optional(static_cast<uint32_t>(strtoul(text, nullptr, 10))) : std::nullopt;
}

struct Tally {
    int sequences = 0;
    size_t steps = 0;
    int inconclusive = 0;
};

/// On a machine that is too busy a save may come at any moment; then the sequence is played again.
Verdict playToTheEnd(Player& player, const Sequence& sequence)
{
    Verdict verdict = player.play(sequence);
    for (int again = 0; again < 5 && verdict.inconclusive; ++again)
        verdict = player.play(sequence);
    return verdict;
}

/// Reports the smallest sequence that shows the mismatch.
void report(Player& player, const Sequence& sequence, const Verdict& verdict)
{
    const auto end = Clock::now() + SHRINK_TIME;
    std::string text = verdict.mismatch;
    player.timeout = 3s;
    const Sequence smallest = shrink(
        sequence,
        [&](const Sequence& smaller) {
            const Verdict other = player.play(smaller);
            text = other.mismatch.empty() ? text : other.mismatch;
            return !other.mismatch.empty();
        },
        [&] { return Clock::now() < end; });
    ADD_FAILURE() << "after " << verdict.mismatch << "\nshrunk to\n" << smallest.print() << "after " << text;
}

/// The heads that sequences are played on: their travels do not divide evenly, or have fewer steps than coordinates.
constexpr int HEADS = 3;

LabOptions headOptions(int head)
{
    constexpr LabAxisSetting PANS[HEADS] = {{300, 8, 3000}, {301, 7, 2999}, {300, 5, 100}};
    constexpr LabAxisSetting TILTS[HEADS] = {{122, 8, 1220}, {123, 6, 1001}, {124, 3, 90}};
    LabOptions options;
    options.pan = PANS[head];
    options.tilt = TILTS[head];
    options.factor = head == 2 ? 20 : 500;
    options.clockSpeed = MODEL_CLOCK_SPEED;
    options.slowdown = head == 0 ? 0 : 3;
    options.environment = {"TZ=UTC0"};
    return options;
}

using Maker = Sequence(uint32_t);

bool playAll(Maker* make, int head, uint32_t firstSeed, int count, Tally& tally)
{
    Lab lab;
    const LabOptions options = headOptions(head);
    if (!lab.up(options)) {
        ADD_FAILURE() << lab.error();
        return false;
    }
    Player player(lab, options);
    for (int i = 0; i < count; ++i) {
        const Sequence sequence = make(firstSeed + static_cast<uint32_t>(i * HEADS));
        const Verdict verdict = playToTheEnd(player, sequence);
        ++tally.sequences;
        tally.steps += sequence.steps.size();
        tally.inconclusive += verdict.inconclusive ? 1 : 0;
        if (!verdict.mismatch.empty()) {
            report(player, sequence, verdict);
            return false;
        }
    }
    const auto status = lab.programs.killPtzd(SIGTERM);
    EXPECT_TRUE(status.has_value() && *status == 0) << lab.records.ptzdLog();
    return true;
}

void play(Maker* make, int ordinary, int thorough)
{
    const auto started = Clock::now();
    Tally tally;
    if (const auto seed = environmentNumber("PTZD_MODEL_SEED")) {
        playAll(make, static_cast<int>(*seed % HEADS), *seed, 1, tally);
        return;
    }
    const bool isLong = getenv("PTZD_LONG_TESTS") != nullptr;
    const int wanted = static_cast<int>(
        environmentNumber("PTZD_MODEL_SEQUENCES").value_or(static_cast<uint32_t>(isLong ? thorough : ordinary)));
    // The ordinary run plays the same sequences every time: what it finds then comes from the change under test.
    const uint32_t base = isLong ? std::random_device{}() / 2 / HEADS * HEADS : 7000 * HEADS;
    for (int head = 0; head < HEADS; ++head)
        if (!playAll(make, head, base + static_cast<uint32_t>(head), (wanted + HEADS - 1) / HEADS, tally))
            break;
    const std::chrono::duration<double> took = Clock::now() - started;
    printf("%d sequences of %zu steps in %.1f s, %d of them inconclusive\n", tally.sequences, tally.steps, took.count(),
           tally.inconclusive);
}

TEST(Model, AgreesWithTheDaemonOnRandomSequences)
{
    play(randomSequence, 36, 2400);
}

TEST(Model, AgreesWithTheDaemonOnWhatIsStored)
{
    play(storingSequence, 18, 600);
}

} // namespace
