<?php

declare(strict_types=1);

namespace Korlo\Settings\Tests;

use Korlo\Settings\Address;
use Korlo\Settings\Client;
use Korlo\Settings\InvalidAddressException;
use Korlo\Settings\Tests\Support\ServerProcess;
use Korlo\Settings\Tests\Support\TemporaryFolder;
use Korlo\Settings\Tests\Support\Throwing;
use PHPUnit\Framework\TestCase;

/**
 * What is an address, and what is none.
 */
final class AddressTest extends TestCase
{
    use Throwing;

    public function testEachFormIsTaken(): void
    {
        $rows = [
            'unix:/run/korlo-settings/socket' => 'unix:///run/korlo-settings/socket',
            'unix:/a b:1' => 'unix:///a b:1',
            '127.0.0.1:4711' => 'tcp://127.0.0.1:4711',
            'panel.local:1' => 'tcp://panel.local:1',
            '[::1]:65535' => 'tcp://[::1]:65535',
            '[fe80::1%eth0]:4711' => 'tcp://[fe80::1%eth0]:4711',
        ];
        foreach ($rows as $text => $url) {
            self::assertSame($url, Address::parse($text)->url);
            self::assertSame($text, Address::parse($text)->text);
            new Client($text);
        }
    }

    public function testAnythingElseIsAnInvalidAddress(): void
    {
        $rows = [
            '' => 'the port is missing',
            'host' => 'the port is missing',
            '[::1]' => 'the port is missing',
            ':' => 'the port must be a number from 1 to 65535',
            'host:' => 'the port must be a number from 1 to 65535',
            'host:0' => 'the port must be a number from 1 to 65535',
            'host:65536' => 'the port must be a number from 1 to 65535',
            'host:-1' => 'the port must be a number from 1 to 65535',
            'host:+1' => 'the port must be a number from 1 to 65535',
            "host:1\n" => 'the port must be a number from 1 to 65535',
            'host:99999999999999999999' => 'the port must be a number from 1 to 65535',
            ':1' => 'the host is missing',
            '::1:4711' => 'an IPv6 address must stand in square brackets',
            'tcp://127.0.0.1:4711' => 'an IPv6 address must stand in square brackets',
            '[]:1' => 'its brackets hold no address',
            '[name]:1' => 'its brackets hold no address',
            'ho[st:1' => 'its brackets hold no address',
            'two words:1' => 'that is no name of a host',
            'host/path:1' => 'that is no name of a host',
            'unix:' => 'the path must begin with /',
            'unix:socket' => 'the path must begin with /',
            "unix:/a\0b" => 'it holds a zero byte',
            'unix:/' . str_repeat('x', 107) => 'the path of a socket has at most 107 bytes',
        ];
        foreach ($rows as $text => $reason) {
            $failure = self::assertThrows(InvalidAddressException::class, static fn() => new Client($text));
            self::assertInstanceOf(\InvalidArgumentException::class, $failure);
            self::assertSame("'$text' is not the address of a settings server: $reason; an address is HOST:PORT, " .
                '[IPV6]:PORT or unix:/PATH', $failure->getMessage());
        }
    }

    public function testWithoutAnAddressTheSocketComesBeforeTcp(): void
    {
        $folder = new TemporaryFolder();
        self::assertSame('127.0.0.1:4711', Address::find("$folder->path/socket")->text);
        self::assertSame("unix:$folder->path/socket", Address::find($folder->write('socket', ''))->text);
        $socket = '/run/korlo-settings/socket';
        self::assertSame(file_exists($socket) ? "unix:$socket" : '127.0.0.1:4711', Address::find()->text);
        new Client();
        new Client(null, 1.0);
    }

    public function testATimeOutMustBePositive(): void
    {
        foreach ([0.0, -1.0, NAN] as $timeout) {
            self::assertThrows(\ValueError::class, static fn() => new Client(null, $timeout));
        }
        $server = new ServerProcess();
        self::assertSame([], (new Client($server->address, INF))->get('*'));
    }
}
