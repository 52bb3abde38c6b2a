<?php

declare(strict_types=1);

namespace Korlo\Settings\Tests\Support;

/**
 * The real settings server, on a Unix-domain socket or on a free TCP port. Ends with its object.
 */
final class ServerProcess
{
    private const SECONDS = 30;

    /** As a client takes it. */
    public string $address;
    private readonly TemporaryFolder $folder;
    /** @var resource */
    private $process;
    /** @var resource */
    private $output;

    /**
     * @param string $defaults INI text, like the others
     * @param string $rules access rules; empty: none
     */
    public function __construct(
        string $defaults = '',
        private readonly bool $isTcp = false,
        string $restricted = '',
        private readonly string $rules = ''
    ) {
        $this->folder = new TemporaryFolder();
        $this->folder->write('defaults.ini', $defaults);
        $this->folder->write('restricted.ini', $restricted);
        $this->folder->write('rules.ini', $rules);
        $this->start();
    }

    public function __destruct()
    {
        $this->kill();
    }

    public function start(): void
    {
        $path = $this->folder->path;
        $listen = $this->isTcp ? ($this->address ?? '127.0.0.1:0') : "unix:$path/socket";
        $command = [getenv('KORLO_SETTINGS_SERVER'), '--listen', $listen, '--user', "$path/user.ini",
            '--defaults', "$path/defaults.ini", '--restricted', "$path/restricted.ini",
            ...($this->rules === '' ? [] : ['--access', "$path/rules.ini"])];
        $log = ['file', "$path/log", 'a'];
        $this->process = proc_open($command, [['file', '/dev/null', 'r'], ['pipe', 'w'], $log], $pipes);
        $this->output = $pipes[1];
        stream_set_timeout($this->output, self::SECONDS);
        $line = (string)fgets($this->output);
        if (!str_starts_with($line, 'listening on ')) {
            throw new \RuntimeException("The server did not start: $line" . file_get_contents("$path/log"));
        }
        $this->address = substr($line, strlen('listening on '), -1);
    }

    /**
     * As a loss of power would end it.
     */
    public function kill(): void
    {
        if (is_resource($this->process)) {
            proc_terminate($this->process, SIGKILL);
            proc_close($this->process);
        }
    }

    public function restart(): void
    {
        $this->kill();
        $this->start();
    }

    public function path(): string
    {
        return $this->folder->path;
    }

    /**
     * What the server answers to raw bytes and "quit", in INI text.
     */
    public function ask(string $request): string
    {
        $stream = stream_socket_client(preg_replace('~^unix:~', 'unix://', $this->address));
        fwrite($stream, $request . "quit\n");
        return (string)stream_get_contents($stream);
    }
}
