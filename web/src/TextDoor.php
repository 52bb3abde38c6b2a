<?php

declare(strict_types=1);

namespace Korlo\SettingsPage;

use Korlo\Settings\Address;
use Korlo\Settings\ConnectionException;
use Korlo\Settings\Deadline;
use Korlo\Settings\Socket;

/**
 * Asks what the server answers as INI text and a line ".": "dump" of clients, "defaults" of the control door.
 */
final class TextDoor
{
    private const SECONDS = 5.0;
    private const END = "\n.\n";

    /**
     * @return array<array<string>>
     * @throws ConnectionException
     */
    public static function ask(Address $address, string $word): array
    {
        $deadline = new Deadline(self::SECONDS);
        $socket = Socket::open($address, $deadline);
        try {
            $socket->send("$word\n", $deadline);
            $answer = "\n";  // so that the end of an empty answer is like any other
            while (!str_ends_with($answer, self::END)) {
                $answer .= $socket->receive($deadline);
                if (str_starts_with($answer, "\nerror ") && str_ends_with($answer, "\n")) {
                    throw new ConnectionException(trim($answer));
                }
            }
        } finally {
            $socket->close();
        }
        return IniText::parse($answer);
    }
}
