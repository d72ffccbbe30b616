"""A stranger that is asked often, and computes from the tokens what the next ones will be."""

import struct
import time

import stranger_case

REQUESTS = 500

# The recurrence of the 64-bit Mersenne Twister, which must not be the source of tokens: of x[k + 312] the 33
# upper bits of x[k] and x[k + 156] tell half. A node that draws two numbers for a request shows every second one.
LENGTH, MIDDLE = 312, 156
MATRIX = 0xB5026F5AA96619E9
UPPER = 0xFFFFFFFF80000000
MASK = (1 << 64) - 1


def undo_left(value, shift, mask=MASK):
    result = value
    for _ in range(64 // shift + 1):
        result = value ^ (result << shift & mask)
    return result & MASK


def undo_right(value, shift, mask=MASK):
    result = value
    for _ in range(64 // shift + 1):
        result = value ^ (result >> shift & mask)
    return result


def state_of(output):
    """The word of the generator's state from which an output was made."""
    value = undo_right(output, 43)
    value = undo_left(value, 37, 0xFFF7EEE000000000)
    value = undo_left(value, 17, 0x71D67FFFEDA60000)
    return undo_right(value, 29, 0x5555555555555555)


def output_of(value):
    value ^= value >> 29 & 0x5555555555555555
    value ^= value << 17 & 0x71D67FFFEDA60000
    value ^= value << 37 & 0xFFF7EEE000000000
    return (value ^ value >> 43) & MASK


def predicted(tokens, drawn):
    """How many tokens follow from earlier ones, if so many numbers are drawn for each."""
    words = [state_of(token) for token in tokens]
    far, near = LENGTH // drawn, MIDDLE // drawn
    known = UPPER >> 1
    count = 0
    for at in range(far, len(words)):
        half = (words[at - far] & UPPER) >> 1 ^ words[at - far + near]
        count += any((words[at] ^ half ^ odd) & known == 0 for odd in (0, MATRIX))
    return count


class Tokens(stranger_case.StrangerCase):
    @staticmethod
    def shown_by(stranger):
        shown = [line.split()[1] for line in stranger.lines if line.startswith("token")]
        # A copy of a request, sent because the answer was late, has the token of the one before it.
        return [token for at, token in enumerate(shown) if at == 0 or token != shown[at - 1]]

    def test_do_not_tell_the_next_ones(self):
        asking = self.node()
        stranger = self.stranger("pretend", "pretender", "1", "show-tokens")
        self.node_finds(asking, "pretender", "before", ["10.77.0.3"])
        answer, _ = asking.ask(f"get key {REQUESTS}", r"got \d+ (\d+)")
        self.is_equal("requests that were answered", answer and int(answer[1]), REQUESTS)
        shown = self.shown_by(stranger)
        end = time.monotonic() + 5
        while len(shown) < REQUESTS and time.monotonic() < end:  # it shows a token after its answer
            time.sleep(0.01)
            shown = self.shown_by(stranger)
        tokens = [struct.unpack(">Q", bytes.fromhex(token))[0] for token in shown]
        self.is_equal("different tokens", len(set(tokens)), len(tokens))
        self.is_equal("tokens of all requests", len(tokens) >= REQUESTS, True)
        for drawn in (1, 2, 3, 4):
            self.is_equal(f"tokens that follow from others, {drawn} drawn for each", predicted(tokens, drawn), 0)

    # A case in which the prediction must succeed shows what it is worth.
    def test_the_prediction_knows_a_twister(self):
        words = [0x0123456789ABCDEF * (at + 1) & MASK for at in range(LENGTH)]
        for at in range(4 * LENGTH):
            mixed = (words[at] & UPPER) | (words[at + 1] & ~UPPER & MASK)
            words.append(words[at + MIDDLE] ^ mixed >> 1 ^ (MATRIX if mixed & 1 else 0))
        tokens = [output_of(word) for word in words[::2]]
        self.assertEqual(predicted(tokens, 2), len(tokens) - LENGTH // 2)


if __name__ == "__main__":
    stranger_case.main()
