<?php

declare(strict_types=1);

namespace Korlo\Settings\Tests;

use Korlo\Settings\Tests\Support\ServerProcess;
use Korlo\Settings\Tests\Support\TemporaryFolder;
use PHPUnit\Framework\TestCase;

/**
 * README.md says what is so: its examples, one after the other, print what their comments say.
 */
final class ReadmeTest extends TestCase
{
    private const DEFAULTS = "[Audio]\nvolume=3\n[Guests]\nmost=9\n[Network/Ethernet]\ndhcp=1\n[Visits]\ncount=6\n";

    public function testTheExamplesPrintWhatTheySay(): void
    {
        $readme = (string)file_get_contents(__DIR__ . '/../README.md');
        $count = preg_match_all('/^```php\n(.*?)^```$/ms', $readme, $blocks);
        self::assertSame(substr_count($readme, '```php'), $count);
        $server = new ServerProcess(self::DEFAULTS, false, "[DeviceSecure]\nserial=4711\n");
        $code = strtr(implode($blocks[1]), [
            '/usr/share/php/Korlo/Settings/autoload.php' => dirname(__DIR__) . '/src/autoload.php',
            'new Korlo\Settings\Client()' => "new Korlo\Settings\Client('$server->address')",
        ]);
        $folder = new TemporaryFolder();
        $script = $folder->write('readme.php', "<?php\n\n$code");
        $options = ['-d', 'display_errors=stderr', '-d', 'error_reporting=-1'];
        $process = proc_open([PHP_BINARY, ...$options, $script], [1 => ['pipe', 'w'], ['pipe', 'w']], $pipes);
        $output = stream_get_contents($pipes[1]);
        self::assertSame('', stream_get_contents($pipes[2]));
        self::assertSame(0, proc_close($process));
        preg_match_all('/^.*echo .*;\s*\/\/ (.*)$/m', $code, $comments);
        $shown = implode("\n", $comments[1]) . "\n";
        $said = preg_quote(preg_replace('/^\n/', '', $shown), '/');
        self::assertMatchesRegularExpression('/\A' . str_replace('\.\.\.', '.*', $said) . '\z/', $output);
        $all = $server->ask("get delimited\n*\n.\n");
        self::assertStringContainsString("[Audio]\nvolume=9\n", $all);
        self::assertStringContainsString("[Network/Wifi]\nssid=Workshop\n", $all);
        self::assertStringNotContainsString('Guests', $all);
        self::assertStringNotContainsString('Ethernet', $all);
    }
}
