<?php

declare(strict_types=1);

namespace Korlo\SettingsPage;

use Korlo\Settings\Change;
use Korlo\Settings\SettingsException;

/**
 * The stream of changes, as server-sent events.
 *
 * - "groups": {"whole": true, "groups": {NAME: DIGEST}} for all groups, first of all and after the server was away;
 *   then {"whole": false, "groups": {NAME: DIGEST-OR-EMPTY}} for those that have changed. Names are in hexadecimal, and
 *   the digest is that of the group's form. A page compares them with its own, so a gap between two streams loses
 *   nothing.
 * - "away": a string that says why the settings cannot be read
 *
 * Each stream keeps a worker of PHP busy. So there is a limit, and a stream that would go beyond it ends at once: its
 * browser asks again every two seconds. The others end after half a minute.
 */
final class Stream
{
    private const SECONDS = 30.0;
    private const SIGN_OF_LIFE = 2.0;  // seconds; only what is written shows that the browser has gone
    private const GATHERED = 0.1;      // seconds, so that a busy group does not keep every page busy
    private const WAIT_FOR_SERVER = 0.5;
    private const RETRY_AT_ONCE = 50;  // milliseconds
    private const RETRY_ELSEWHERE = 200;
    private const RETRY = 2000;
    private const ESTABLISHED = '01';  // the state of a connection, in /proc/net/tcp
    private const DEFAULT_MOST = 2;

    private readonly float $end;
    private bool $isConnected = false;

    /**
     * @param \Closure(): Store $connect
     * @param array<mixed> $server PHP's $_SERVER
     */
    public function __construct(private readonly \Closure $connect, private readonly array $server)
    {
        $this->end = self::now() + self::SECONDS;
    }

    public function run(): void
    {
        header('Content-Type: text/event-stream');
        header('Cache-Control: no-store');
        header('X-Content-Type-Options: nosniff');
        header('X-Accel-Buffering: no');  // nginx
        while (ob_get_level() > 0) {
            ob_end_flush();
        }
        $isCrowded = $this->keepsOthersWaiting();
        $place = $isCrowded ? null : $this->takePlace();
        self::write('retry: ' . match (true) {
            $place !== null => self::RETRY_AT_ONCE,
            $isCrowded => self::RETRY_ELSEWHERE,
            default => self::RETRY,
        });
        do {
            try {
                $this->follow(($this->connect)(), $place !== null);
            } catch (SettingsException $failure) {
                $this->endure($failure, $place !== null);
            }
        } while ($place !== null && self::now() < $this->end);
    }

    /**
     * Tells what there is and, if asked to, what changes, until the time is up.
     *
     * @throws SettingsException
     */
    private function follow(Store $store, bool $isLasting): void
    {
        if ($isLasting) {
            $store->client->subscribe('*');  // first: what changes from here on comes as a change
        }
        self::tellGroups($store->all(), true);
        $this->isConnected = true;
        while ($isLasting && ($left = $this->end - self::now()) > 0.0) {
            $change = $store->client->next(min($left, self::SIGN_OF_LIFE));
            if ($change === null) {
                self::write(':');
            } else {
                self::tellChange(self::gather($store, $change));
            }
        }
    }

    /**
     * After the loss of a connection the server may be back already, and if not, the next failure says more.
     */
    private function endure(SettingsException $failure, bool $isLasting): void
    {
        if ($this->isConnected) {
            $this->isConnected = false;
            return;
        }
        self::tell('away', Site::told($failure));
        if ($isLasting) {
            usleep((int)(self::WAIT_FOR_SERVER * 1e6));
        }
    }

    private static function gather(Store $store, Change $change): Change
    {
        $end = self::now() + self::GATHERED;
        while (($left = $end - self::now()) > 0.0) {
            $next = $store->client->next($left);
            $change = $next === null ? $change : $change->with($next);
        }
        return $change;
    }

    private static function tellChange(Change $change): void
    {
        $groups = [];
        foreach ($change->groups as $group) {
            $groups[$group] = $change->settings[$group] ?? null;
        }
        self::tellGroups(Store::unrestricted($groups), false);
    }

    /**
     * @param array<?array<string>> $groups
     */
    private static function tellGroups(array $groups, bool $isWhole): void
    {
        $digests = [];
        foreach ($groups as $group => $values) {
            $digests[bin2hex((string)$group)] = Store::digest($values);
        }
        self::tell('groups', ['whole' => $isWhole, 'groups' => (object)$digests]);
    }

    private static function tell(string $event, mixed $data): void
    {
        self::write("event: $event\ndata: " . json_encode($data, JSON_THROW_ON_ERROR | JSON_INVALID_UTF8_SUBSTITUTE));
    }

    private static function write(string $lines): void
    {
        echo "$lines\n\n";
        flush();
    }

    /**
     * One of the places that streams may take, for as long as this process holds it: the name of an abstract socket,
     * which the system frees in any case.
     *
     * @return resource|null none is free
     */
    private function takePlace()
    {
        for ($number = $this->mostPlaces(); $number > 0; --$number) {
            $name = hash('xxh64', __FILE__ . ' ' . (PHP_SAPI === 'cli-server' ? $this->server['SERVER_PORT'] : ''));
            $place = @stream_socket_server("unix://\0korlo-settings-page/$name/$number");
            if ($place !== false) {
                return $place;
            }
        }
        return null;
    }

    /**
     * Whether PHP's own web server has taken more than our connection into this process. It takes none while a script
     * runs, but those that it has taken already would wait for the end of the stream.
     */
    private function keepsOthersWaiting(): bool
    {
        if (PHP_SAPI !== 'cli-server') {
            return false;
        }
        $own = [];
        foreach (glob('/proc/self/fd/*') ?: [] as $file) {
            $own[] = (string)@readlink($file);
        }
        $port = sprintf(':%04X', $this->server['SERVER_PORT']);
        $count = 0;
        foreach ([...(@file('/proc/self/net/tcp') ?: []), ...(@file('/proc/self/net/tcp6') ?: [])] as $line) {
            $column = preg_split('/\s+/', trim($line));
            $isOpen = ($column[3] ?? '') === self::ESTABLISHED && str_ends_with($column[1], $port);
            $count += $isOpen && in_array("socket:[$column[9]]", $own, true) ? 1 : 0;
        }
        return $count > 1;
    }

    private function mostPlaces(): int
    {
        $most = getenv('KORLO_SETTINGS_STREAMS');
        if ($most !== false && $most !== '') {
            return (int)$most;
        }
        return PHP_SAPI === 'cli-server' ? max(0, (int)getenv('PHP_CLI_SERVER_WORKERS') - 1) : self::DEFAULT_MOST;
    }

    private static function now(): float
    {
        return hrtime(true) / 1e9;
    }
}
