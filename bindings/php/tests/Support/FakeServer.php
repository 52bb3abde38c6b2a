<?php

declare(strict_types=1);

namespace Korlo\Settings\Tests\Support;

/**
 * A server in a process of its own that does what a test tells it, one connection after the other.
 */
final class FakeServer
{
    public readonly string $address;
    private readonly TemporaryFolder $folder;
    private readonly int $process;

    /**
     * @param \Closure(resource, int): void $serve gets each connection and its number, from 0; the connection is closed
     *        when it returns
     */
    public function __construct(\Closure $serve)
    {
        $this->folder = new TemporaryFolder();
        $this->address = "unix:{$this->folder->path}/socket";
        $listener = stream_socket_server("unix://{$this->folder->path}/socket");
        $this->process = pcntl_fork();
        if ($this->process === 0) {
            set_error_handler(static fn(): bool => true);  // a client that has gone is no error
            try {
                for ($number = 0; ($connection = stream_socket_accept($listener, 600.0)) !== false; ++$number) {
                    $serve($connection, $number);
                    fclose($connection);
                }
            } finally {
                posix_kill(getmypid(), SIGKILL);  // the objects of the test belong to the other process
            }
        }
    }

    public function __destruct()
    {
        posix_kill($this->process, SIGKILL);
        pcntl_waitpid($this->process, $status);
    }

    /**
     * The next request, whole. Those of the client all end with a list.
     *
     * @param resource $connection
     * @return string empty: the client has gone
     */
    public static function request($connection): string
    {
        for ($request = ''; !str_ends_with($request, "\n.\n");) {
            $bytes = (string)fread($connection, 8192);
            if ($bytes === '') {
                return '';
            }
            $request .= $bytes;
        }
        return $request;
    }

    /**
     * Answers each request with the settings.
     *
     * @param resource $connection
     * @param array<array<string>> $settings
     */
    public static function answerAll($connection, array $settings): void
    {
        while (self::request($connection) !== '') {
            fwrite($connection, self::data($settings));
        }
    }

    /**
     * Does nothing until the client goes.
     *
     * @param resource $connection
     */
    public static function stall($connection): void
    {
        while (self::request($connection) !== '') {
            continue;
        }
    }

    /**
     * An answer with these settings, whose keys must not look like numbers.
     *
     * @param array<array<string>> $settings
     */
    public static function data(array $settings): string
    {
        return "data\n" . serialize($settings) . "\n\n.\n";
    }

    /**
     * @param array<array<string>> $settings
     */
    public static function notification(array $settings): string
    {
        return "async change\n" . implode("\n", array_keys($settings)) . "\n.\n" . serialize($settings) . "\n\n.\n";
    }
}
