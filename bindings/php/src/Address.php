<?php

declare(strict_types=1);

namespace Korlo\Settings;

/**
 * Where a settings server listens.
 *
 * @internal
 */
final class Address
{
    private const HIGHEST_PORT = 65535;
    private const LONGEST_PATH = 107;  // of a socket; PHP would cut off the rest, and connect to another one
    private const DEFAULT_SOCKET = '/run/korlo-settings/socket';
    private const DEFAULT_TCP = '127.0.0.1:4711';

    /**
     * @param string $text as the user writes it
     * @param string $url as PHP's stream functions take it
     */
    private function __construct(public readonly string $text, public readonly string $url)
    {
    }

    /**
     * @throws InvalidAddressException
     */
    public static function parse(string $text): self
    {
        if (str_contains($text, "\0")) {
            throw self::invalid($text, 'it holds a zero byte');
        }
        return str_starts_with($text, 'unix:') ? self::parsePath($text) : self::parseHost($text);
    }

    /**
     * Where a client without an address looks: the socket when it is there, else TCP.
     */
    public static function find(string $socket = self::DEFAULT_SOCKET): self
    {
        clearstatcache(true, $socket);
        return self::parse(file_exists($socket) ? "unix:$socket" : self::DEFAULT_TCP);
    }

    private static function parsePath(string $text): self
    {
        $path = substr($text, strlen('unix:'));
        if (!str_starts_with($path, '/')) {
            throw self::invalid($text, 'the path must begin with /');
        }
        if (strlen($path) > self::LONGEST_PATH) {
            throw self::invalid($text, 'the path of a socket has at most ' . self::LONGEST_PATH . ' bytes');
        }
        return new self($text, "unix://$path");
    }

    private static function parseHost(string $text): self
    {
        if (preg_match('/\A(.*):([^:\]]*)\z/s', $text, $match) !== 1) {
            throw self::invalid($text, 'the port is missing');
        }
        [, $host, $port] = $match;
        if (preg_match('/\A0*[1-9][0-9]{0,4}\z/', $port) !== 1 || (int)$port > self::HIGHEST_PORT) {
            throw self::invalid($text, 'the port must be a number from 1 to 65535');
        }
        if (preg_match('/\A\[[0-9A-Fa-f:.]+(%[\w.-]+)?]\z/', $host) !== 1) {
            self::checkHostName($text, $host);
        }
        return new self($text, "tcp://$host:" . (int)$port);
    }

    private static function checkHostName(string $text, string $host): void
    {
        if ($host === '') {
            throw self::invalid($text, 'the host is missing');
        }
        if (strpbrk($host, '[]') !== false) {
            throw self::invalid($text, 'its brackets hold no address');
        }
        if (str_contains($host, ':')) {
            throw self::invalid($text, 'an IPv6 address must stand in square brackets');
        }
        if (preg_match('/[\s\/?#@]/', $host) === 1) {
            throw self::invalid($text, 'that is no name of a host');
        }
    }

    private static function invalid(string $text, string $reason): InvalidAddressException
    {
        return new InvalidAddressException(
            "'$text' is not the address of a settings server: $reason; " .
            'an address is HOST:PORT, [IPV6]:PORT or unix:/PATH'
        );
    }
}
