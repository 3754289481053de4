#include "journal/receipts.h"

#include <iterator>

namespace {

constexpr auto W = ReceiptState::Waiting;
constexpr auto A = ReceiptState::Offline;
constexpr auto S = ReceiptState::Sent;
constexpr auto P = ReceiptState::Started;
constexpr auto C = ReceiptState::Completed;
constexpr auto X = ReceiptState::Stopped;
constexpr auto O = ReceiptState::Overruled;
constexpr auto L = ReceiptState::Lost;
constexpr auto N = ReceiptState::Silent;
constexpr auto R = ReceiptState::Refused;

// A column for each state before, in their order. A list goes title by title: one that is sent after another
// was played is a part of the same play.
constexpr ReceiptState Next[][ReceiptStates] = {
    // W  A  S  P  C  X  O  L  N  R
    {W, A, S, P, C, X, O, L, N, R}, // Expected
    {S, S, S, P, P, S, S, S, S, S}, // Sent
    {A, A, L, L, L, X, O, L, L, A}, // Away
    {R, R, S, P, C, X, O, L, N, R}, // Forbidden
    {W, A, P, P, P, X, O, P, P, R}, // Begun
    {W, A, C, C, C, X, O, L, C, R}, // Over
    {W, A, S, C, C, X, O, L, N, R}, // OtherBegun
    {X, A, X, X, C, X, O, L, X, R}, // Stop
    {O, A, O, O, C, X, O, L, O, R}, // Taken
    {W, A, L, L, C, X, O, L, N, R}, // LineEnded
    {W, A, N, P, C, X, O, L, N, R}, // NotHeard
    {R, A, S, C, C, X, O, L, N, R}, // TimeOver
    {W, W, W, W, W, W, W, W, W, W}, // Held
};
static_assert(std::size(Next) == static_cast<size_t>(Evidence::Held) + 1);

} // namespace

ReceiptState stateAfter(ReceiptState state, Evidence evidence) {
    return Next[static_cast<int>(evidence)][static_cast<int>(state)];
}
