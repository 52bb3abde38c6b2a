<?php

declare(strict_types=1);

namespace Korlo\Settings;

/**
 * Takes messages out of the bytes that a server sends. When the time is up inside a message, what has come is kept, and
 * the next read begins with it.
 *
 * @internal
 */
final class Reader
{
    private const MOST_BYTES = 32 * 1024 * 1024;  // of one message: PHP may use 128 MiB by default
    private const LONGEST_KEYWORD = 64;
    private const LONGEST_SIZE = 14;  // s:4294967295:"
    private const ARRAY = '/a:(\d{1,10}):\{/A';
    private const STRING = '/s:(\d{1,10}):"/A';

    private string $buffer = '';
    private int $begin = 0;   // of the message that is read next
    private int $offset = 0;  // what is read of it ends here
    private Deadline $deadline;

    /**
     * @param Socket $socket also read by nobody else
     */
    public function __construct(private readonly Socket $socket)
    {
    }

    /**
     * Reads a message: a change, the settings of a "data" answer, or the outcome of a "result" answer.
     *
     * @return Change|array<array<string>>|bool
     * @throws ConnectionException
     * @throws ProtocolException
     */
    public function read(Deadline $deadline): Change|array|bool
    {
        $this->deadline = $deadline;
        $this->offset = $this->begin;
        $line = $this->line(self::LONGEST_KEYWORD);
        $message = match (true) {
            $line === 'data' => $this->settings(),
            $line === 'result' => $this->outcome(),
            str_starts_with("$line ", 'async ') => $this->change(),
            default => throw self::nonsense($line),
        };
        $this->begin = $this->offset;
        if ($this->begin * 2 >= strlen($this->buffer)) {  // seldom, however many small messages have come at once
            $this->buffer = substr($this->buffer, $this->begin);
            $this->begin = 0;
        }
        return $message;
    }

    /**
     * The changes that have come already. Nothing else may have come: nobody has asked.
     *
     * @return list<Change>
     * @throws ProtocolException
     */
    public function readWhatIsThere(): array
    {
        $changes = [];
        $this->buffer .= $this->socket->receiveNow();
        try {
            while (strlen($this->buffer) > $this->begin) {
                $message = $this->read(new Deadline(0.0));
                if (!$message instanceof Change) {
                    throw new ProtocolException('it sent an answer that nobody had asked for');
                }
                $changes[] = $message;
            }
        } catch (ConnectionException) {
            // The rest of a change comes later; that the connection has ended is found by whoever needs it.
        }
        return $changes;
    }

    /**
     * Whether anything but changes has come since the last message.
     */
    public function hasPartOfAnAnswer(): bool
    {
        return strlen($this->buffer) > $this->begin && $this->buffer[$this->begin] !== 'a';
    }

    private function change(): Change
    {
        $groups = [];
        while (($name = $this->line(self::MOST_BYTES)) !== '.') {
            $groups[] = $name;
        }
        // A name with an asterisk brings in what it selects as a pattern.
        return new Change($groups, array_intersect_key($this->settings(), array_flip($groups)));
    }

    private function outcome(): bool
    {
        $line = $this->line(self::LONGEST_KEYWORD);
        return match ($line) {
            'ok' => true,
            'failure' => false,
            default => throw self::nonsense($line),
        };
    }

    /**
     * A body: nothing when nothing was asked for, else an array of arrays of strings. Lengths are believed, so a value
     * may look like the end of the body, and no byte is looked at twice.
     *
     * @return array<array<string>>
     */
    private function settings(): array
    {
        $settings = [];
        if ($this->nextByte() !== '.') {
            for ($groups = $this->size(self::ARRAY); $groups > 0; --$groups) {
                $group = $this->text();
                $values = [];
                for ($keys = $this->size(self::ARRAY); $keys > 0; --$keys) {
                    $key = $this->text();
                    $values[$key] = $this->text();
                }
                $settings[$group] = $values;
                $this->expect('}');
            }
            $this->expect("}\n\n");
        }
        $this->expect(".\n");
        return $settings;
    }

    private function text(): string
    {
        $length = $this->size(self::STRING);
        $begin = $this->offset;
        $this->offset += $length + 2;
        if (strlen($this->buffer) < $this->offset) {
            $this->need(0);
        }
        if ($this->buffer[$this->offset - 2] !== '"' || $this->buffer[$this->offset - 1] !== ';') {
            throw self::nonsense(substr($this->buffer, $begin + $length));
        }
        return substr($this->buffer, $begin, $length);
    }

    /**
     * The size at the beginning of an array or string.
     */
    private function size(string $pattern): int
    {
        while (preg_match($pattern, $this->buffer, $match, 0, $this->offset) !== 1) {
            $rest = substr($this->buffer, $this->offset, self::LONGEST_SIZE);
            if (preg_match("/($pattern[1](:\\d{0,10}:?)?)?\\z/A", $rest) !== 1) {
                throw self::nonsense($rest);
            }
            $this->fill();
        }
        $this->offset += strlen($match[0]);
        return (int)$match[1];
    }

    private function expect(string $text): void
    {
        $this->need(strlen($text));
        if (substr_compare($this->buffer, $text, $this->offset, strlen($text)) !== 0) {
            throw self::nonsense(substr($this->buffer, $this->offset));
        }
        $this->offset += strlen($text);
    }

    private function nextByte(): string
    {
        $this->need(1);
        return $this->buffer[$this->offset];
    }

    private function line(int $mostBytes): string
    {
        $begin = $this->offset;
        for ($from = $begin; ($end = strpos($this->buffer, "\n", $from)) === false;) {
            $from = strlen($this->buffer);
            if ($from - $begin > $mostBytes) {
                throw self::nonsense(substr($this->buffer, $begin));
            }
            $this->fill();
        }
        $this->offset = $end + 1;
        return substr($this->buffer, $begin, $end - $begin);
    }

    /**
     * Waits until that many bytes are there.
     */
    private function need(int $bytes): void
    {
        $end = $this->offset + $bytes;
        while (strlen($this->buffer) < $end) {
            $this->fill($end);
        }
    }

    /**
     * Waits for some bytes.
     *
     * @param int $end where the message ends at the earliest
     */
    private function fill(int $end = 0): void
    {
        if (max($end, strlen($this->buffer)) - $this->begin > self::MOST_BYTES) {
            throw new ProtocolException('its message is larger than ' . self::MOST_BYTES . ' bytes: ask for less');
        }
        $this->buffer .= $this->socket->receive($this->deadline);
    }

    private static function nonsense(string $text): ProtocolException
    {
        $shown = addcslashes(substr($text, 0, 40), "\0..\37'\\\177..\377");
        return new ProtocolException(
            "it sent '$shown', which is no answer: check that a settings server, not older than 1.0, listens there"
        );
    }
}
