<?php

declare(strict_types=1);

namespace Korlo\Settings\Tests;

use Korlo\Settings\Tests\Support\ServerProcess;
use Korlo\Settings\Tests\Support\TemporaryFolder;
use PHPUnit\Framework\TestCase;

/**
 * What the client costs a page of a web server, whose opcode cache keeps the classes from one request to the next.
 */
final class PageTest extends TestCase
{
    private const REQUESTS = 50;

    public function testAPageReadsAGroupWithinAMillisecond(): void
    {
        $settings = new ServerProcess("[Network]\nname=Kitchen\n");
        $folder = new TemporaryFolder();
        $autoload = dirname(__DIR__) . '/src/autoload.php';
        $page = $folder->write('page.php', <<<PAGE
            <?php

            \$start = hrtime(true);
            require '$autoload';
            \$settings = (new Korlo\\Settings\\Client('$settings->address'))->get('Network');
            echo hrtime(true) - \$start, ' ', \$settings['Network']['name'];
            PAGE);
        $options = ['-d', 'opcache.enable_cli=1', '-d', 'opcache.file_update_protection=0', '-S', '127.0.0.1:0'];
        $server = proc_open([PHP_BINARY, ...$options, $page], [['pipe', 'r'], 2 => ['pipe', 'w']], $pipes);
        try {
            self::assertSame(1, preg_match('/\((http:.*)\) started/', (string)fgets($pipes[2]), $address));
            $milliseconds = [];
            for ($request = 0; $request < self::REQUESTS; ++$request) {
                [$nanoseconds, $name] = explode(' ', (string)file_get_contents($address[1]));
                self::assertSame('Kitchen', $name);
                $milliseconds[] = $nanoseconds / 1e6;
            }
        } finally {
            proc_terminate($server);
            proc_close($server);
        }
        sort($milliseconds);
        self::assertLessThan(1.0, $milliseconds[intdiv(self::REQUESTS, 4)], 'a busy machine delays the rest');
    }
}
