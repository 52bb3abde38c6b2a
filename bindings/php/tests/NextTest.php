<?php

declare(strict_types=1);

namespace Korlo\Settings\Tests;

use Korlo\Settings\Change;
use Korlo\Settings\Client;
use Korlo\Settings\ConnectionException;
use Korlo\Settings\Tests\Support\ServerProcess;
use Korlo\Settings\Tests\Support\Throwing;
use PHPUnit\Framework\TestCase;

/**
 * Subscriptions, with the real server.
 */
final class NextTest extends TestCase
{
    use Throwing;

    private const SECONDS = 20.0;

    private ServerProcess $server;
    private Client $client;
    private Client $other;

    protected function setUp(): void
    {
        $this->server = new ServerProcess("[Audio]\nvolume=3\n[Net/eth0]\nmode=dhcp\n[5]\n7=9\n");
        $this->client = new Client($this->server->address);
        $this->other = new Client($this->server->address);
    }

    public function testReturnsEachChangeOfTheSubscribedGroups(): void
    {
        $this->client->subscribe('Audio', 'Net/*');
        $this->client->subscribe('5');
        $this->other->merge(['Audio' => ['volume' => 4], 'Display' => ['brightness' => 1]]);
        $this->other->merge(['5' => ['7' => 8], 'Net/usb0' => ['mode' => "\n.\n"]]);
        self::assertChange(['Audio'], ['Audio' => ['volume' => '4']], $this->client->next(self::SECONDS));
        $settings = ['5' => ['7' => '8'], 'Net/usb0' => ['mode' => "\n.\n"]];
        self::assertChange(['5', 'Net/usb0'], $settings, $this->client->next());
        $this->other->erase('Net/*');
        self::assertChange(['Net/eth0', 'Net/usb0'], [], $this->client->next(self::SECONDS));
        self::assertNull($this->client->next(0.0));
    }

    public function testAnOwnChangeIsKeptUntilItIsAskedFor(): void
    {
        $this->client->subscribe('Audio');
        $this->client->merge(['Audio' => ['volume' => 4]]);
        self::assertTrue($this->client->testAndMerge(['Audio' => ['volume' => 4]], ['Audio' => ['volume' => 5]]));
        self::assertSame('5', $this->client->value('Audio', 'volume'));
        self::assertChange(['Audio'], ['Audio' => ['volume' => '4']], $this->client->next(0.0));
        self::assertChange(['Audio'], ['Audio' => ['volume' => '5']], $this->client->next(0.0));
        self::assertNull($this->client->next(-1.0));
    }

    public function testNullAfterTheTimeAndNotBefore(): void
    {
        $this->client->subscribe('Audio');
        $begin = hrtime(true);
        self::assertNull($this->client->next(0.05));
        self::assertGreaterThanOrEqual(0.05, (hrtime(true) - $begin) / 1e9);
    }

    public function testWithoutASubscriptionNothingComes(): void
    {
        self::assertNull($this->client->next(0.0));
        $this->client->subscribe();
        $this->other->merge(['Audio' => ['volume' => 4]]);
        self::assertNull($this->client->next(0.01));
    }

    public function testManyKeptChangesAreOneAtTheEnd(): void
    {
        $this->client->subscribe('*');
        for ($number = 0; $number < 300; ++$number) {
            $this->client->merge(['Audio' => ['volume' => $number], "G$number" => ['k' => 'v']], false);
        }
        $this->client->erase('G299', '5');
        for ($kept = []; ($change = $this->client->next(0.0)) !== null;) {
            $kept[] = $change;
        }
        self::assertCount(256, $kept);
        self::assertChange(['Audio', 'G254'], ['Audio' => ['volume' => '254'], 'G254' => ['k' => 'v']], $kept[254]);
        self::assertSame(['volume' => '299'], $kept[255]->settings['Audio']);
        self::assertCount(1 + 45 + 1, array_diff($kept[255]->groups, ['KorloSettings/Data/DeletedGroups']));
        self::assertContains('5', $kept[255]->groups);
        self::assertArrayNotHasKey('5', $kept[255]->settings);
        self::assertArrayNotHasKey('G299', $kept[255]->settings);
        self::assertSame(['k' => 'v'], $kept[255]->settings['G298']);
    }

    public function testALostServerIsToldAndNothingIsMissedAfterwards(): void
    {
        $this->client->subscribe('Audio', 'Net/*', 'Gone');
        $this->server->kill();
        $failure = self::assertThrows(ConnectionException::class, fn() => $this->client->next());
        self::assertStringContainsString('next() failed with the settings server at', $failure->getMessage());
        self::assertThrows(ConnectionException::class, fn() => $this->client->next(0.0));
        $this->server->start();
        (new Client($this->server->address))->merge(['Audio' => ['volume' => 6]]);
        $settings = ['Audio' => ['volume' => '6'], 'Net/eth0' => ['mode' => 'dhcp']];
        self::assertChange(['Audio', 'Gone', 'Net/eth0'], $settings, $this->client->next(self::SECONDS));
        self::assertNull($this->client->next(0.0));
        (new Client($this->server->address))->merge(['Net/eth0' => ['mode' => 'off']]);
        self::assertChange(['Net/eth0'], ['Net/eth0' => ['mode' => 'off']], $this->client->next(self::SECONDS));
    }

    public function testAReadThatConnectsAgainSubscribesAgain(): void
    {
        $this->client->subscribe('Audio');
        $this->server->restart();
        self::assertSame('3', $this->client->value('Audio', 'volume'));
        (new Client($this->server->address))->merge(['Audio' => ['volume' => 6]]);
        self::assertChange(['Audio'], ['Audio' => ['volume' => '6']], $this->client->next(self::SECONDS));
        self::assertChange(['Audio'], ['Audio' => ['volume' => '6']], $this->client->next(0.0));
        self::assertNull($this->client->next(0.0));
    }

    public function testASubscriptionIsMadeOnANewConnection(): void
    {
        $this->client->get('Audio');
        $this->server->restart();
        $this->client->subscribe('Audio');
        self::assertNull($this->client->next(0.0), 'nothing can have been missed');
        $this->client->merge(['Audio' => ['volume' => 6]]);
        self::assertChange(['Audio'], ['Audio' => ['volume' => '6']], $this->client->next(0.0));
    }

    public function testASignalHandlerCanCloseAClientThatWaits(): void
    {
        $this->client->subscribe('Audio');
        $calls = [];
        pcntl_async_signals(true);
        pcntl_signal(SIGALRM, function () use (&$calls): void {
            $calls[] = self::assertThrows(\LogicException::class, fn() => $this->client->get('Audio'));
            $this->client->close();
        });
        try {
            pcntl_alarm(1);
            $failure = self::assertThrows(ConnectionException::class, fn() => $this->client->next());
        } finally {
            pcntl_signal(SIGALRM, SIG_DFL);
            pcntl_async_signals(false);
        }
        self::assertStringContainsString('a signal handler', $failure->getMessage());
        self::assertCount(1, $calls);
        self::assertSame('3', $this->client->value('Audio', 'volume'));
    }

    public function testASignalDoesNotEndAWait(): void
    {
        $this->client->subscribe('Audio');
        pcntl_signal(SIGUSR1, static fn() => null);
        $parent = getmypid();
        $signaller = pcntl_fork();
        if ($signaller === 0) {
            for ($round = 0; $round < 20; ++$round) {
                posix_kill($parent, SIGUSR1);
                usleep(2000);
            }
            (new Client($this->server->address))->merge(['Audio' => ['volume' => 6]]);
            posix_kill(getmypid(), SIGKILL);
        }
        $change = $this->client->next(self::SECONDS);
        pcntl_signal(SIGUSR1, SIG_DFL);
        pcntl_waitpid($signaller, $status);
        self::assertChange(['Audio'], ['Audio' => ['volume' => '6']], $change);
    }

    /**
     * @param list<string> $groups
     * @param array<array<string>> $settings
     */
    private static function assertChange(array $groups, array $settings, ?Change $change): void
    {
        self::assertNotNull($change, 'no change came');
        self::assertSame($groups, $change->groups);
        self::assertSame($settings, $change->settings);
    }
}
