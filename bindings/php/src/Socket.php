<?php

declare(strict_types=1);

namespace Korlo\Settings;

/**
 * A connection as a stream of bytes. No call takes longer than its deadline, whatever php.ini says; only the look-up of
 * a host's name is up to the system.
 *
 * @internal
 */
final class Socket
{
    private const PIECE_BYTES = 65536;
    private const INTERRUPTED = '[4]';  // how the warning of a select that a signal has ended numbers it
    private const NO_PERMISSION = 13;
    private const NO_SUCH_FILE = 2;
    private const REFUSED = 111;
    private const TIMED_OUT = 110;
    private const TRY_AGAIN = 11;  // a Unix-domain socket, before which too many others wait
    private const RETRY_MICROSECONDS = 5000;
    private const FOREVER = 1e6;  // seconds; without any, PHP would take its default_socket_timeout

    /** @var resource */
    private $stream;
    private string $early = '';  // what came and was not taken yet, as while a request was being sent

    /**
     * @param resource $stream
     */
    private function __construct($stream)
    {
        stream_set_blocking($stream, false);
        stream_set_read_buffer($stream, 0);
        stream_set_chunk_size($stream, self::PIECE_BYTES);
        $this->stream = $stream;
    }

    /**
     * @throws ConnectionException
     */
    public static function open(Address $address, Deadline $deadline): self
    {
        $context = stream_context_create(['socket' => ['tcp_nodelay' => true]]);
        $connect = static function () use ($address, $deadline, $context, &$code, &$reason) {
            $left = $deadline->left() ?? self::FOREVER;
            return stream_socket_client($address->url, $code, $reason, $left, STREAM_CLIENT_CONNECT, $context);
        };
        while (($stream = self::quietly($connect)) === false) {
            $isTimeUp = $deadline->left() === 0.0;
            if ($code !== self::TRY_AGAIN || $isTimeUp) {
                throw self::openFailure((int)$code, (string)$reason, $isTimeUp);
            }
            usleep(self::RETRY_MICROSECONDS);
        }
        return new self($stream);
    }

    /**
     * Ends the connection. A call that a signal has interrupted fails.
     */
    public function close(): void
    {
        if (is_resource($this->stream)) {
            fclose($this->stream);
        }
    }

    /**
     * Sends all of it. What comes meanwhile is kept, so that a server that waits for its own bytes to be taken goes on.
     *
     * @throws ConnectionException
     */
    public function send(string $bytes, Deadline $deadline): void
    {
        $length = strlen($bytes);
        for ($sent = 0; $sent < $length;) {
            $piece = $sent === 0 && $length <= self::PIECE_BYTES ? $bytes : substr($bytes, $sent, self::PIECE_BYTES);
            $count = self::quietly(fn() => fwrite($this->stream, $piece), $warning);
            if ($count === false && !str_contains($warning, 'errno=' . self::TRY_AGAIN . ' ')) {
                throw new ConnectionException('it ended the connection');
            }
            $sent += (int)$count;
            if ($sent < $length && !$this->await(true, $deadline)) {
                throw new TimeoutException('it did not take the whole request');
            }
        }
    }

    /**
     * Waits for bytes, and returns some.
     *
     * @throws ConnectionException
     */
    public function receive(Deadline $deadline): string
    {
        while ($this->early === '') {
            if (!$this->await(false, $deadline)) {
                throw new TimeoutException('there was no whole answer');
            }
            $this->takeReady();
        }
        return $this->takeEarly();
    }

    /**
     * What has come already; nothing also when the connection has ended.
     */
    public function receiveNow(): string
    {
        return $this->takeEarly() . self::quietly(fn() => fread($this->stream, self::PIECE_BYTES));
    }

    private function takeEarly(): string
    {
        $bytes = $this->early;
        $this->early = '';
        return $bytes;
    }

    /**
     * Takes what a wait has ended for: bytes, or the end of the connection.
     */
    private function takeReady(): void
    {
        $bytes = self::quietly(fn() => fread($this->stream, self::PIECE_BYTES));
        if ((string)$bytes === '' && feof($this->stream)) {
            throw new ConnectionException('it ended the connection');
        }
        $this->early .= $bytes;
    }

    /**
     * Waits until bytes have come, or, if asked for, can be sent.
     *
     * @return bool false: the time is up
     */
    private function await(bool $untilWritable, Deadline $deadline): bool
    {
        do {
            $left = $deadline->left();
            $ready = $this->select($untilWritable, $left);
            if (!is_resource($this->stream)) {
                throw new ConnectionException('a signal handler of this program has closed the connection');
            }
            if ($ready && $untilWritable) {
                $this->takeReady();
            }
        } while (!$ready && $left !== 0.0);
        return $ready;
    }

    /**
     * @return bool false: the time is up, or a signal came
     */
    private function select(bool $orWritable, ?float $seconds): bool
    {
        $read = [$this->stream];
        $write = $orWritable ? [$this->stream] : [];
        $none = [];
        $whole = $seconds === null ? null : (int)$seconds;
        $micro = $seconds === null ? null : (int)ceil(($seconds - $whole) * 1e6);
        $select = static function () use (&$read, &$write, &$none, $whole, $micro) {
            return stream_select($read, $write, $none, $whole, $micro);
        };
        $count = self::quietly($select, $warning);
        if ($count === false && !str_contains($warning, self::INTERRUPTED)) {
            throw new ConnectionException("the system cannot wait for it ($warning)");
        }
        return $count > 0;
    }

    private static function openFailure(int $code, string $reason, bool $isTimeUp): ConnectionException
    {
        if ($code === self::TIMED_OUT || $isTimeUp) {
            return new TimeoutException('it did not take the connection');
        }
        $advice = match ($code) {
            self::NO_PERMISSION => ': add the user of this program to the group of the socket, and start it anew',
            self::NO_SUCH_FILE, self::REFUSED => ': start korlo-settings-server, or give the address it listens on',
            default => '',
        };
        return new ConnectionException("$reason$advice");
    }

    /**
     * Calls a stream function. Its warning goes to $warning, and to no handler of the program.
     */
    private static function quietly(callable $function, ?string &$warning = null): mixed
    {
        $warning = '';
        set_error_handler(static function (int $level, string $text) use (&$warning): bool {
            $warning = $text;
            return true;
        });
        try {
            return $function();
        } finally {
            restore_error_handler();
        }
    }
}
