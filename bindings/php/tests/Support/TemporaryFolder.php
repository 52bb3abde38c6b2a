<?php

declare(strict_types=1);

namespace Korlo\Settings\Tests\Support;

/**
 * A folder of its own, that goes with its object.
 */
final class TemporaryFolder
{
    public readonly string $path;

    public function __construct()
    {
        $this->path = sys_get_temp_dir() . '/korlo-' . bin2hex(random_bytes(6));
        mkdir($this->path);
    }

    public function __destruct()
    {
        array_map('unlink', glob("$this->path/*") ?: []);
        rmdir($this->path);
    }

    /**
     * @return string the path of the file
     */
    public function write(string $name, string $text): string
    {
        file_put_contents("$this->path/$name", $text);
        return "$this->path/$name";
    }
}
