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

using namespace std::chrono_literals;

constexpr auto SHRINK_TIME = 90s;

std::optional<uint32_t> environmentNumber(const char* name)
{
    const char* text = getenv(name);
    return text ? std::optional(static_cast<uint32_t>(strtoul(text, nullptr, 10))) : std::nullopt;
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

/// Reports the smallest sequence that shows the mismatch.
void report(Player& player, const Sequence& sequence, const std::string& mismatch)
{
    const auto end = std::chrono::steady_clock::now() + SHRINK_TIME;
    std::string text = mismatch;
    Sequence smallest = sequence;
    player.timeout = 3s;
    for (size_t i = sequence.steps.size(); i-- > 0 && std::chrono::steady_clock::now() < end;) {
        Sequence smaller = smallest;
        smaller.steps.erase(smaller.steps.begin() + static_cast<ptrdiff_t>(i));
        const Verdict verdict = player.play(smaller);
        if (verdict.mismatch.empty())
            continue;
        smallest = smaller;
        text = verdict.mismatch;
    }
    std::string steps = "PTZD_MODEL_SEED=" + std::to_string(sequence.seed) + ", started with\n";
    for (const auto& part : {sequence.setup, smallest.steps})
        for (const Step& step : part)
            steps += "    " + step.print() + "\n";
    ADD_FAILURE() << "after " << mismatch << "\nshrunk to\n" << steps << "after " << text;
}

void playOn(int head, uint32_t firstSeed, int count)
{
    const LabOptions options = headOptions(head);
    Lab lab;
    ASSERT_TRUE(lab.up(options)) << lab.error();
    Player player(lab, options);
    int inconclusive = 0;
    for (int i = 0; i < count; ++i) {
        const Sequence sequence = makeSequence(firstSeed + static_cast<uint32_t>(i * HEADS));
        Verdict verdict = player.play(sequence);
        // On a machine that is too busy a save may come at any moment; then the sequence is played again.
        for (int again = 0; again < 5 && verdict.inconclusive; ++again)
            verdict = player.play(sequence);
        inconclusive += verdict.inconclusive ? 1 : 0;
        if (!verdict.mismatch.empty())
            return report(player, sequence, verdict.mismatch);
    }
    const auto status = lab.programs.killPtzd(SIGTERM);
    EXPECT_TRUE(status.has_value() && *status == 0) << lab.records.ptzdLog();
    printf("%d sequences, %d of them inconclusive\n", count, inconclusive);
}

class Model : public testing::TestWithParam<int> {};
INSTANTIATE_TEST_SUITE_P(OnHead, Model, testing::Range(0, HEADS)); // each with a lab of its own, side by side

TEST_P(Model, AgreesWithTheDaemonOnRandomSequences)
{
    const int head = GetParam();
    if (const auto seed = environmentNumber("PTZD_MODEL_SEED"))
        return static_cast<int>(*seed % HEADS) == head ? playOn(head, *seed, 1) : void();
    const bool isLong = getenv("PTZD_LONG_TESTS") != nullptr;
    const uint32_t wanted = environmentNumber("PTZD_MODEL_SEQUENCES").value_or(isLong ? 3000 : 54);
    // The ordinary run plays the same sequences every time: what it finds then comes from the change under test.
    const uint32_t base = isLong ? std::random_device{}() / 2 / HEADS * HEADS : 7000 * HEADS;
    playOn(head, base + static_cast<uint32_t>(head), static_cast<int>((wanted + HEADS - 1) / HEADS));
}

} // namespace
