<?php

declare(strict_types=1);

namespace Korlo\Settings\Tests;

use Korlo\Settings\Client;
use Korlo\Settings\ConnectionException;
use Korlo\Settings\ProtocolException;
use Korlo\Settings\Tests\Support\FakeServer;
use Korlo\Settings\Tests\Support\TemporaryFolder;
use Korlo\Settings\Tests\Support\Throwing;
use Korlo\Settings\TimeoutException;
use PHPUnit\Framework\TestCase;

/**
 * Whatever a server does, a call ends in time, and the next one does not suffer for it.
 */
final class MisbehavingServerTest extends TestCase
{
    use Throwing;

    private const ENOUGH = 30.0;
    private const LITTLE = 0.1;
    private const SETTINGS = ['Audio' => ['volume' => "\n.\n", 'muted' => 'no']];
    private const WRONG = ['Audio' => ['volume' => 'wrong']];

    public function testACutAnswerIsNone(): void
    {
        $answer = FakeServer::data(self::SETTINGS);
        $server = new FakeServer(static function ($connection, int $number) use ($answer): void {
            FakeServer::request($connection);
            fwrite($connection, $number % 2 === 0 ? substr($answer, 0, intdiv($number, 2)) : $answer);
        });
        for ($length = 0; $length < strlen($answer); ++$length) {
            $client = new Client($server->address, self::ENOUGH);
            $failure = self::assertThrows(ConnectionException::class, fn() => $client->get('Audio'));
            self::assertNotInstanceOf(TimeoutException::class, $failure);
            self::assertSame(self::SETTINGS, $client->get('Audio'), "after $length bytes");
        }
    }

    public function testACutAnswerOnAnOldConnectionIsAFailureToo(): void
    {
        $server = new FakeServer(static function ($connection): void {
            FakeServer::request($connection);
            fwrite($connection, FakeServer::data(self::SETTINGS));
            FakeServer::request($connection);
            fwrite($connection, "data\na:1:{");
        });
        $client = new Client($server->address, self::ENOUGH);
        self::assertSame(self::SETTINGS, $client->get('Audio'));
        self::assertThrows(ConnectionException::class, fn() => $client->get('Audio'));
        self::assertSame(self::SETTINGS, $client->get('Audio'));
    }

    public function testARequestIsSentOnceMoreOnlyIfItReads(): void
    {
        $folder = new TemporaryFolder();
        $server = new FakeServer(static function ($connection) use ($folder): void {
            for ($request = 0; $request < 2; ++$request) {
                $words = FakeServer::request($connection);
                file_put_contents("$folder->path/requests", strpbrk($words, 'gm')[0], FILE_APPEND);
                fwrite($connection, $request === 0 ? "data\n.\n" : '');
            }
        });
        $client = new Client($server->address, self::ENOUGH);
        $client->get();
        $client->get();
        self::assertSame('ggg', file_get_contents("$folder->path/requests"));
        self::assertThrows(ConnectionException::class, fn() => $client->merge(self::SETTINGS));
        self::assertSame('gggm', file_get_contents("$folder->path/requests"));
        $client->merge(self::SETTINGS);
    }

    /**
     * @return array<array{string}>
     */
    public static function nonsense(): array
    {
        $texts = ["HTTP/1.1 400 Bad Request\r\n", "data\n[Audio]\nvolume=3\n.\n", "data\nhello", "data\n\n", "\n",
            "ok\n", "result\nok\n", "result\nperhaps\n", 'x', str_repeat('x', 1000), "\x16\x03\x01\n", "data \n",
            "data\na:-1:{", "data\na:1:{i:5;a:0:{}}\n\n.\n", "data\na:1:{s:1:\"A\";i:5;}\n\n.\n", "data\na:0:{}x\n.\n",
            "data\na:1:{s:1:\"A\";a:1:{s:1:\"k\";O:8:\"stdClass\":0:{}}}\n\n.\n", "data\na:00000000000:{}\n\n.\n",
            "data\na:1:{s:2:\"A\";a:0:{}}\n\n.\n", "data\na:1:{s:4294967295:\"A\";", "data\na:4294967295:{}",
            "data\na:1:{s:5:\"Audio\";a:1:{s:1:\"k\";s:34000000:\"v", "data\na:0:{}\n.\n\n", "data\na:0:{}\n\n..\n",
            "async\n.\na:1:{x", FakeServer::data(['Display' => ['brightness' => '3']]),
            FakeServer::data(self::SETTINGS + ['Display' => []])];
        return array_map(static fn(string $text): array => [$text], $texts);
    }

    /**
     * @dataProvider nonsense
     */
    public function testNonsenseIsToldAtOnce(string $text): void
    {
        $server = new FakeServer(static function ($connection, int $number) use ($text): void {
            FakeServer::request($connection);
            fwrite($connection, $number === 0 ? $text : FakeServer::data(self::SETTINGS));
            FakeServer::stall($connection);
        });
        $client = new Client($server->address, self::ENOUGH);
        $begin = hrtime(true);
        if ($text === 'x') {
            $client = new Client($server->address, self::LITTLE);
            self::assertThrows(TimeoutException::class, fn() => $client->get('Audio'));
        } else {
            $failure = self::assertThrows(ProtocolException::class, fn() => $client->get('Audio'));
            self::assertStringContainsString("get() failed with the settings server at '", $failure->getMessage());
            self::assertMatchesRegularExpression('/^[ -~]+$/', $failure->getMessage());
        }
        self::assertLessThan(self::ENOUGH / 2, (hrtime(true) - $begin) / 1e9);
        self::assertSame(self::SETTINGS, self::getAtLast($client));
    }

    public function testAServerThatKnowsNoPhpArraysIsSaidToBeOld(): void
    {
        $server = new FakeServer(static function ($connection): void {
            FakeServer::request($connection);
            fwrite($connection, "data\n[Audio]\nvolume=3\n.\n");
        });
        $client = new Client($server->address, self::ENOUGH);
        $failure = self::assertThrows(ProtocolException::class, fn() => $client->get('Audio'));
        self::assertSame(
            "get() failed with the settings server at '$server->address': it sent '[Audio]\\nvolume', which " .
            'is no answer: check that a settings server, not older than 1.0, listens there',
            $failure->getMessage()
        );
    }

    public function testALateAnswerReachesNobody(): void
    {
        $server = new FakeServer(static function ($connection, int $number): void {
            FakeServer::request($connection);
            usleep($number === 0 ? 200_000 : 0);
            fwrite($connection, FakeServer::data($number === 0 ? self::WRONG : self::SETTINGS));
            FakeServer::stall($connection);
        });
        ini_set('default_socket_timeout', '0');
        $client = new Client($server->address, self::LITTLE);
        $failure = self::assertThrows(TimeoutException::class, fn() => $client->get('Audio'));
        ini_restore('default_socket_timeout');
        self::assertInstanceOf(ConnectionException::class, $failure);
        self::assertStringContainsString('there was no whole answer within 0.1 seconds', $failure->getMessage());
        self::assertSame(self::SETTINGS, self::getAtLast($client));
    }

    public function testAnAnswerByteForByteIsWhole(): void
    {
        $server = new FakeServer(static function ($connection): void {
            FakeServer::request($connection);
            foreach (str_split(FakeServer::notification(self::WRONG) . FakeServer::data(self::SETTINGS)) as $byte) {
                fwrite($connection, $byte);
                usleep(100);
            }
            FakeServer::stall($connection);
        });
        $client = new Client($server->address, self::ENOUGH);
        self::assertSame(self::SETTINGS, $client->get('Audio'));
        self::assertSame(self::WRONG, $client->next(0.0)->settings);
    }

    public function testTheTimeIsThatOfTheWholeCall(): void
    {
        $server = new FakeServer(static function ($connection): void {
            FakeServer::request($connection);
            for ($sent = true; $sent; usleep(10_000)) {
                $sent = @fwrite($connection, "async change\n.\na:0:{}\n\n.\n") > 0;
            }
        });
        $client = new Client($server->address, self::LITTLE);
        self::assertThrows(TimeoutException::class, fn() => $client->get('Audio'));
        self::assertThrows(TimeoutException::class, fn() => $client->merge(self::SETTINGS));
    }

    public function testAServerThatTakesNoRequestIsATimeout(): void
    {
        $server = new FakeServer(static function ($connection): void {
            sleep(600);
        });
        $client = new Client($server->address, self::LITTLE);
        $settings = ['Audio' => ['volume' => str_repeat('x', 8 << 20)]];
        $failure = self::assertThrows(TimeoutException::class, fn() => $client->merge($settings));
        self::assertStringContainsString('did not take the whole request within 0.1 seconds', $failure->getMessage());
    }

    public function testAServerThatTakesNoConnectionIsATimeout(): void
    {
        $server = new FakeServer(static function ($connection): void {
            fwrite($connection, '!');
            sleep(600);
        });
        $url = str_replace('unix:', 'unix://', $server->address);
        $waiting = [stream_socket_client($url)];
        fread($waiting[0], 1);  // it is accepted: none of the others will be
        while (($stream = @stream_socket_client($url, $code, $reason, 1.0)) !== false) {
            $waiting[] = $stream;
        }
        $client = new Client($server->address, self::LITTLE);
        $failure = self::assertThrows(TimeoutException::class, fn() => $client->get('Audio'));
        self::assertStringContainsString('did not take the connection within 0.1 seconds', $failure->getMessage());
    }

    public function testARequestLargerThanTheBuffersArrives(): void
    {
        $server = new FakeServer(static function ($connection): void {
            fwrite($connection, str_repeat(FakeServer::notification(self::SETTINGS), 10_000));
            $length = strlen(FakeServer::request($connection));
            fwrite($connection, FakeServer::data(['Length' => ['k' => "$length"]]));
            FakeServer::stall($connection);
        });
        $client = new Client($server->address, self::ENOUGH);
        $names = array_fill(0, 200_000, 'Some/Name');
        $length = strlen("serialize phparray\nget delimited\n") + strlen("Some/Name\n") * 200_000 + 7 + 2;
        self::assertSame(['Length' => ['k' => "$length"]], $client->get('Length', ...$names));
    }

    public function testAnAnswerThatNobodyAskedForReachesNobody(): void
    {
        $server = new FakeServer(static function ($connection, int $number): void {
            FakeServer::request($connection);
            fwrite($connection, FakeServer::data(self::SETTINGS));
            fwrite($connection, $number === 0 ? FakeServer::notification(self::SETTINGS) . "data\n.\n" : '');
            FakeServer::answerAll($connection, self::SETTINGS);
        });
        $client = new Client($server->address, self::ENOUGH);
        self::assertSame(self::SETTINGS, $client->get('Audio'));
        self::assertSame(self::SETTINGS, $client->next(self::ENOUGH)->settings);
        $failure = self::assertThrows(ProtocolException::class, fn() => $client->get('Audio'));
        self::assertStringContainsString('nobody had asked for', $failure->getMessage());
        self::assertSame(self::SETTINGS, $client->get('Audio'));
    }

    public function testAChangeInPiecesIsWholeAcrossWaits(): void
    {
        $text = FakeServer::notification(self::SETTINGS);
        $half = intdiv(strlen($text), 2);
        $server = new FakeServer(static function ($connection) use ($text, $half): void {
            FakeServer::request($connection);
            fwrite($connection, "data\n.\n" . substr($text, 0, $half));
            FakeServer::request($connection);
            fwrite($connection, substr($text, $half) . FakeServer::data(self::SETTINGS) . substr($text, 0, $half));
            usleep(50_000);
            fwrite($connection, substr($text, $half));
            FakeServer::stall($connection);
        });
        $client = new Client($server->address, self::ENOUGH);
        $client->subscribe('Audio');
        self::assertNull($client->next(0.01));
        self::assertNull($client->next(0.0));
        self::assertSame(self::SETTINGS, $client->get('Audio'));
        self::assertSame(self::SETTINGS, $client->next(0.0)->settings);
        self::assertSame(self::SETTINGS, $client->next()->settings);
    }

    public function testAnAnswerInTheMiddleOfAWaitIsNonsense(): void
    {
        $server = new FakeServer(static function ($connection, int $number): void {
            FakeServer::request($connection);
            fwrite($connection, "data\n.\n" . ($number === 0 ? "result\nok\n" : ''));
            FakeServer::answerAll($connection, []);
        });
        $client = new Client($server->address, self::ENOUGH);
        $client->subscribe('Audio');
        self::assertThrows(ProtocolException::class, fn() => $client->next());
        self::assertSame(['Audio'], $client->next(self::ENOUGH)->groups, 'what may have been missed');
    }

    public function testATestAndMergeWithoutAnOutcomeIsNonsense(): void
    {
        $server = new FakeServer(static function ($connection): void {
            FakeServer::answerAll($connection, []);
        });
        $client = new Client($server->address, self::ENOUGH);
        $failure = self::assertThrows(ProtocolException::class, fn() => $client->testAndMerge([], self::SETTINGS));
        self::assertStringContainsString('the answer to another request', $failure->getMessage());
        self::assertStringContainsString('may or may not be made', $failure->getMessage());
    }
    /**
     * For a client that has little time, on a machine that may be busy.
     *
     * @return array<array<string>>
     */
    private static function getAtLast(Client $client): array
    {
        for ($try = 0; $try < 100; ++$try) {
            try {
                return $client->get('Audio');
            } catch (TimeoutException) {
                continue;
            }
        }
        self::fail('There was never an answer');
    }
}
