<?php

declare(strict_types=1);

namespace Korlo\Settings\Tests;

use Korlo\Settings\Client;
use Korlo\Settings\ConnectionException;
use Korlo\Settings\InvalidNameException;
use Korlo\Settings\RefusedException;
use Korlo\Settings\RestrictedGroupException;
use Korlo\Settings\Tests\Support\ServerProcess;
use Korlo\Settings\Tests\Support\Throwing;
use PHPUnit\Framework\TestCase;

/**
 * Reads and changes, with the real server.
 */
final class ClientTest extends TestCase
{
    use Throwing;

    private const DEFAULTS = "[Audio]\nmuted=no\nvolume=3\n[Net/eth0]\nmode=dhcp\n[Net/wlan0]\nmode=off\n";
    private const RESTRICTED = "[DeviceSecure]\nserial=4711\n";

    /**
     * @return array<array{bool}>
     */
    public static function doors(): array
    {
        return ['Unix-domain socket' => [false], 'TCP' => [true]];
    }

    /**
     * @dataProvider doors
     */
    public function testReadsWhatNamesAndPatternsSelect(bool $isTcp): void
    {
        $server = new ServerProcess(self::DEFAULTS, $isTcp, self::RESTRICTED);
        $client = new Client($server->address);
        self::assertSame(['Net/eth0' => ['mode' => 'dhcp'], 'Net/wlan0' => ['mode' => 'off']], $client->get('Net/*'));
        self::assertSame(['Audio' => ['muted' => 'no', 'volume' => '3']], $client->get('Nobody', 'Audio', 'Audio'));
        self::assertSame(['DeviceSecure' => ['serial' => '4711']], $client->get('*Secure'));
        self::assertSame(['Audio', 'DeviceSecure', 'Net/eth0', 'Net/wlan0'], array_keys($client->get('*')));
        self::assertSame(['Audio', 'Net/eth0'], array_keys($client->get('A*', '*t*h0', 'Audio', 'Nob*dy')));
        self::assertSame([], $client->get('Nobody'));
        self::assertSame([], $client->get());
    }

    public function testReadsOneValue(): void
    {
        $server = new ServerProcess(self::DEFAULTS . "[]\n\"\"=empty\n[5]\n7=seven\n");
        $client = new Client($server->address);
        self::assertSame('3', $client->value('Audio', 'volume'));
        self::assertSame('seven', $client->value('5', '7'));
        self::assertNull($client->value('Audio', 'Volume'));
        self::assertNull($client->value('audio', 'volume'));
        self::assertNull($client->value('Net/*', 'mode'), 'a pattern is no group');
    }

    public function testAChangeIsMadeWhenTheCallReturns(): void
    {
        $server = new ServerProcess(self::DEFAULTS);
        $client = new Client($server->address);
        $read = static fn(): string => $server->ask("get delimited\n*\n.\n");
        $client->merge(['Audio' => ['volume' => '7'], 'New' => ['key' => 'value']]);
        self::assertStringContainsString("[Audio]\nmuted=no\nvolume=7\n", $read());
        self::assertStringContainsString("[New]\nkey=value\n", $read());
        $client->overwrite(['Net/*', 'New'], ['Net/usb0' => ['mode' => 'dhcp']]);
        self::assertSame("data\n[Audio]\nmuted=no\nvolume=7\n[Net/usb0]\nmode=dhcp\n.\n", $read());
        $client->erase('Net/*');
        self::assertSame("data\n[Audio]\nmuted=no\nvolume=7\n.\n", $read());
        $client->restore('Audio', 'Net/eth0');
        self::assertSame("data\n[Audio]\nmuted=no\nvolume=3\n[Net/eth0]\nmode=dhcp\n.\n", $read());
        $client->erase();
        $client->restore();
        $client->merge([]);
        $client->overwrite([]);
        self::assertSame("data\n[Audio]\nmuted=no\nvolume=3\n[Net/eth0]\nmode=dhcp\n.\n", $read());
    }

    public function testWhatIsNotPersistedIsGoneWithTheServer(): void
    {
        $server = new ServerProcess(self::DEFAULTS);
        $client = new Client($server->address);
        $client->merge(['Audio' => ['muted' => 'yes']]);
        $client->merge(['Audio' => ['volume' => '7']], false);
        self::assertSame(['muted' => 'yes', 'volume' => '7'], $client->get('Audio')['Audio']);
        $server->restart();
        self::assertSame(['muted' => 'yes', 'volume' => '3'], $client->get('Audio')['Audio']);
    }

    public function testTestAndMergeChangesOnlyWhatIsAsExpected(): void
    {
        $server = new ServerProcess(self::DEFAULTS, false, self::RESTRICTED);
        $client = new Client($server->address);
        self::assertFalse($client->testAndMerge(['Audio' => ['volume' => '4']], ['Audio' => ['volume' => '5']]));
        self::assertSame('3', $client->value('Audio', 'volume'));
        self::assertTrue($client->testAndMerge(['Audio' => ['volume' => 3]], ['Audio' => ['volume' => 5]]));
        self::assertSame('5', $client->value('Audio', 'volume'));
        self::assertTrue($client->testAndMerge(['DeviceSecure' => ['serial' => 4711]], ['Audio' => ['volume' => 6]]));
        self::assertTrue($client->testAndMerge([], ['Audio' => ['volume' => 7]]));
        self::assertSame('7', $client->value('Audio', 'volume'));
    }

    public function testEveryByteSurvives(): void
    {
        $every = implode('', array_map('chr', range(0, 255)));
        $texts = ['', ' ', '5', '05', '-5', '0', '9223372036854775807', '1.5', '.', "\n", "\n.\n", ".\n", "\0", "\r\n",
            '[x]', 'a=b', '#', ';', '"', '\\', '\\x00', "}\n\n.\n", 's:1:"', 'a:0:{}', 'async change', "data\n", 'ä€😀',
            $every];
        $server = new ServerProcess();
        $client = new Client($server->address);
        $all = [];
        foreach ($texts as $text) {
            $settings = ["group $text" => ['key' => $text, "key $text" => "value $text"], $text => [$text => $text]];
            $client->merge($settings);
            self::assertTrue($client->testAndMerge($settings, [$text => [$text => $text . $text]]), $text);
            $settings[$text][$text] = $text . $text;
            $all += $settings;
            self::assertEquals($all, $client->get('*'), $text);
        }
        $server->restart();
        self::assertEquals($all, (new Client($server->address))->get('*'));
        foreach ($texts as $text) {
            if ($text !== '.' && !str_contains($text, "\n")) {
                self::assertSame($text . $text, $client->value($text, $text));
                $client->erase($text);
                self::assertNull($client->value($text, $text));
            }
        }
    }

    public function testAMebibyteSurvives(): void
    {
        $server = new ServerProcess();
        $client = new Client($server->address);
        $value = random_bytes(1 << 20);
        $client->subscribe('Big');
        $client->merge(['Big' => ['value' => $value]], false);
        self::assertTrue($value === $client->value('Big', 'value'));
    }

    public function testWhatLooksLikeANumberIsAStringOnTheWire(): void
    {
        $server = new ServerProcess();
        $client = new Client($server->address);
        $client->merge(['5' => ['7' => 9, '07' => 1.5, -3 => '1e3', 'f' => 2.0]]);
        self::assertSame("data\n[5]\n-3=1e3\n07=1.5\n7=9\nf=2\n.\n", $server->ask("get delimited\n5\n.\n"));
        foreach ($client->get('5') as $values) {
            self::assertSame(['-3' => '1e3', '07' => '1.5', '7' => '9', 'f' => '2'], $values);
        }
        $client->merge($client->get('5'));
        $client->overwrite(['5']);
        self::assertSame([], $client->get('5'));
    }

    /**
     * @return array<array{array<mixed>}>
     */
    public static function impossibleSettings(): array
    {
        return [[['G' => ['k' => true]]], [['G' => ['k' => null]]], [['G' => ['k' => []]]], [['G' => 'text']],
            [['G' => ['k' => new \stdClass()]]], [['A' => ['k' => '1'], 'G' => null]]];
    }

    /**
     * @param array<mixed> $settings
     * @dataProvider impossibleSettings
     */
    public function testWhatIsNoTextIsATypeErrorAndSendsNothing(array $settings): void
    {
        $server = new ServerProcess(self::DEFAULTS);
        $client = new Client($server->address);
        $calls = [fn() => $client->merge($settings), fn() => $client->overwrite(['Audio'], $settings),
            fn() => $client->testAndMerge($settings, []), fn() => $client->testAndMerge([], $settings)];
        foreach ($calls as $call) {
            self::assertThrows(\TypeError::class, $call);
        }
        self::assertSame(['Audio', 'Net/eth0', 'Net/wlan0'], array_keys($client->get('*')));
    }

    public function testANameThatFitsNoListIsRefusedBeforeAnythingIsSent(): void
    {
        $client = new Client('unix:/nonexistent/socket');
        foreach (['.', "a\nb", "\n"] as $name) {
            $calls = [fn() => $client->get('Audio', $name), fn() => $client->value($name, 'key'),
                fn() => $client->overwrite([$name]), fn() => $client->erase($name), fn() => $client->restore($name),
                fn() => $client->subscribe($name)];
            foreach ($calls as $call) {
                $failure = self::assertThrows(InvalidNameException::class, $call);
                self::assertInstanceOf(\InvalidArgumentException::class, $failure);
                self::assertStringContainsString("'$name'", $failure->getMessage());
            }
        }
    }

    public function testARestrictedGroupIsRefusedBeforeAnythingIsSent(): void
    {
        self::assertTrue(Client::isRestricted('MySecureGroup'));
        self::assertTrue(Client::isRestricted('Trusted'));
        self::assertFalse(Client::isRestricted('secure/Securities'));
        $client = new Client('unix:/nonexistent/socket');
        $settings = ['Audio' => ['k' => 'v'], 'DeviceSecure' => ['serial' => '0']];
        $calls = [fn() => $client->merge($settings), fn() => $client->testAndMerge([], $settings),
            fn() => $client->overwrite([], $settings), fn() => $client->overwrite(['Audio', 'DeviceSecure']),
            fn() => $client->erase('DeviceSecure'), fn() => $client->restore('Device*Secure')];
        foreach ($calls as $call) {
            $failure = self::assertThrows(RestrictedGroupException::class, $call);
            self::assertMatchesRegularExpression("/'Device\\*?Secure'/", $failure->getMessage());
        }
        self::assertStringNotContainsString('Audio', $failure->getMessage());
    }

    public function testAPatternLeavesRestrictedGroupsAlone(): void
    {
        $server = new ServerProcess(self::DEFAULTS, false, self::RESTRICTED);
        $client = new Client($server->address);
        $client->erase('*');
        self::assertSame(['DeviceSecure' => ['serial' => '4711']], $client->get('*Secure', 'A*'));
    }

    public function testARefusedChangeNamesTheGroups(): void
    {
        $rules = "[Access/tcp]\npeer=tcp\nread=Audio\nchange=Net/*\n";
        $server = new ServerProcess(self::DEFAULTS . "[Hidden]\nk=1\n", true, '', $rules);
        $client = new Client($server->address);
        $many = array_map(static fn(int $number): string => sprintf('G%02d', $number), range(0, 11));
        $calls = [
            [['Audio'], fn() => $client->merge(['Audio' => ['volume' => 1], 'Net/eth0' => ['mode' => 'off']])],
            [$many, fn() => $client->merge(array_fill_keys($many, ['k' => 'v']), false)],
            [['Audio'], fn() => $client->overwrite(['Audio', 'Net/eth0'])],
            [['*'], fn() => $client->erase('*')],
            [['A*'], fn() => $client->restore('A*')],
            [['Audio'], fn() => $client->testAndMerge(['Audio' => ['volume' => '3']], ['Audio' => ['volume' => '4']])],
            [['Hidden'], fn() => $client->testAndMerge(['Hidden' => ['k' => '1']], ['Net/eth0' => ['mode' => '']])],
        ];
        foreach ($calls as [$groups, $call]) {
            $failure = self::assertThrows(RefusedException::class, $call);
            self::assertSame($groups, $failure->groups);
            self::assertStringContainsString("'" . implode("', '", $groups) . "'", $failure->getMessage());
        }
        self::assertFalse($client->testAndMerge(['Audio' => ['volume' => '4']], ['Net/eth0' => ['mode' => 'x']]));
        $client->merge(['Net/eth0' => ['mode' => 'static']]);
        self::assertSame(['Audio' => ['muted' => 'no', 'volume' => '3'], 'Net/eth0' => ['mode' => 'static'],
            'Net/wlan0' => ['mode' => 'off']], $client->get('*'));
    }

    public function testAReadOutlivesARestartAndAChangeDoesNot(): void
    {
        $server = new ServerProcess(self::DEFAULTS);
        $client = new Client($server->address);
        self::assertSame('3', $client->value('Audio', 'volume'));
        $server->restart();
        self::assertSame('3', $client->value('Audio', 'volume'));
        $server->restart();
        $failure = self::assertThrows(ConnectionException::class, fn() => $client->merge(['Audio' => ['volume' => 9]]));
        self::assertStringContainsString('may or may not be made', $failure->getMessage());
        $client->merge(['Audio' => ['volume' => 8]]);
        self::assertSame('8', $client->value('Audio', 'volume'));
    }

    public function testAForkedProcessGetsAConnectionOfItsOwn(): void
    {
        $server = new ServerProcess(self::DEFAULTS);
        $client = new Client($server->address, 10.0);
        $client->get('Audio');
        $child = pcntl_fork();
        if ($child === 0) {
            $round = 0;
            while ($round < 100 && $client->get('Net/eth0') === ['Net/eth0' => ['mode' => 'dhcp']]) {
                ++$round;
            }
            file_put_contents($server->path() . '/rounds', (string)$round);
            posix_kill(getmypid(), SIGKILL);
        }
        for ($round = 0; $round < 100; ++$round) {
            self::assertSame(['Audio'], array_keys($client->get('Audio')));
        }
        pcntl_waitpid($child, $status);
        self::assertSame('100', file_get_contents($server->path() . '/rounds'));
    }

    public function testCanBeUsedAgainAfterClose(): void
    {
        $server = new ServerProcess(self::DEFAULTS);
        $client = new Client($server->address);
        $client->subscribe('Audio');
        $client->merge(['Audio' => ['volume' => 4]]);
        $client->close();
        $client->close();
        $client->merge(['Audio' => ['volume' => 5]]);
        self::assertNull($client->next(0.0), 'the subscription has ended');
    }

    public function testCannotBeCloned(): void
    {
        $client = new Client('unix:/nonexistent/socket');
        self::assertThrows(\Error::class, static fn() => clone $client);
    }

    public function testASocketWithoutPermissionSaysWhatToDo(): void
    {
        $server = new ServerProcess();
        chmod($server->path() . '/socket', 0);
        $client = new Client($server->address);
        class_exists(ConnectionException::class);
        $user = posix_geteuid();
        posix_seteuid($user === 0 ? 65534 : $user);
        try {
            $failure = self::assertThrows(ConnectionException::class, fn() => $client->get('Audio'));
        } finally {
            posix_seteuid($user);
        }
        self::assertSame("get() failed with the settings server at '$server->address': Permission denied: add the " .
            'user of this program to the group of the socket, and start it anew', $failure->getMessage());
    }

    public function testNoServerSaysWhatToDo(): void
    {
        $server = new ServerProcess();
        $client = new Client($server->address);
        $server->kill();
        $failure = self::assertThrows(ConnectionException::class, fn() => $client->get('Audio'));
        self::assertSame("get() failed with the settings server at '$server->address': Connection refused: start " .
            'korlo-settings-server, or give the address it listens on', $failure->getMessage());
        $failure = self::assertThrows(ConnectionException::class, fn() => (new Client('unix:/nonexistent'))->get('A'));
        self::assertSame("get() failed with the settings server at 'unix:/nonexistent': No such file or directory: " .
            'start korlo-settings-server, or give the address it listens on', $failure->getMessage());
        self::assertThrows(ConnectionException::class, fn() => (new Client('name.invalid:1'))->get('A'));
        $server->start();
        self::assertSame([], $client->get('Audio'));
    }

    public function testAFailureIsNoBusinessOfTheProgramsErrorHandler(): void
    {
        $server = new ServerProcess();
        $client = new Client($server->address);
        $client->get('Audio');
        $server->kill();
        set_error_handler(static fn(int $level, string $text) => throw new \ErrorException($text));
        try {
            self::assertThrows(ConnectionException::class, fn() => $client->merge([]));
            self::assertThrows(ConnectionException::class, fn() => $client->get('Audio'));
            self::assertThrows(ConnectionException::class, fn() => (new Client('name.invalid:1'))->get('A'));
        } finally {
            restore_error_handler();
        }
    }

    public function testAScriptThatReadsOneGroupTakesLessThanAMillisecond(): void
    {
        $server = new ServerProcess(self::DEFAULTS);
        $spent = static function (): float {
            $usage = getrusage();
            return 1e3 * ($usage['ru_utime.tv_sec'] + $usage['ru_stime.tv_sec'])
                + ($usage['ru_utime.tv_usec'] + $usage['ru_stime.tv_usec']) / 1e3;
        };
        $rounds = 100;
        $begin = $spent();
        for ($round = 0; $round < $rounds; ++$round) {
            (new Client($server->address))->get('Audio');
        }
        self::assertLessThan(1.0, ($spent() - $begin) / $rounds, 'milliseconds of processor time, connecting included');
    }
}
